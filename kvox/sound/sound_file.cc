#include "kvox/sound/sound_file.h"

#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "kvox/common/fixed_text.h"
#include "kvox/sound/library.h"

namespace kvox {
namespace {

// clang-format off
#define KVOX_SNDFILE_FUNCTIONS(F)                                                       \
  F(open_fd) F(close) F(command) F(strerror) F(seek) F(write_raw) F(read_raw)           \
  F(readf_int) F(readf_float) F(readf_double) F(writef_int)
// clang-format on

/// The functions we use, with the library's own types.
struct Library {
#define KVOX_DECLARE(function) decltype(&sf_##function) function = nullptr;
  KVOX_SNDFILE_FUNCTIONS(KVOX_DECLARE)
#undef KVOX_DECLARE
};

const Library& Sndfile() {
  static const Library library = [] {
    const LateLibrary late("libsndfile.so.1", "libsndfile1");
    Library loaded;
#define KVOX_LOAD(function) late.Load("sf_" #function, loaded.function);
    KVOX_SNDFILE_FUNCTIONS(KVOX_LOAD)
#undef KVOX_LOAD
    return loaded;
  }();
  return library;
}

constexpr uint32_t kMostFlacChannels = 8;

struct SubtypeRow {
  Kvox::DataFormat encoding;
  uint32_t bits;
  int subtype;
};
constexpr SubtypeRow kSubtypes[] = {
    {Kvox::DataFormat::INT, 16, SF_FORMAT_PCM_16}, {Kvox::DataFormat::INT, 24, SF_FORMAT_PCM_24},
    {Kvox::DataFormat::INT, 32, SF_FORMAT_PCM_32}, {Kvox::DataFormat::FLOAT, 32, SF_FORMAT_FLOAT},
    {Kvox::DataFormat::SULAW, 8, SF_FORMAT_ULAW},
};

/// 0 for formats that no WAV file has.
int SubtypeOf(const SoundFormat& format) {
  for (const SubtypeRow& row : kSubtypes) {
    if (row.encoding == format.encoding && row.bits == format.bits) return row.subtype;
  }
  return 0;
}

/// Whether the samples of a file are integers, or decode to integers.
bool HasIntegers(int subtype) {
  constexpr int kSubtypesOfIntegers[] = {SF_FORMAT_PCM_S8, SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16,
                                         SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_ULAW,
                                         SF_FORMAT_ALAW};
  return std::ranges::count(kSubtypesOfIntegers, subtype) > 0;
}

[[noreturn]] void Fail(const std::string& path, const std::string& problem) {
  throw SoundFileError("'" + path + "' " + problem);
}

/// "cannot be read (cause)"
[[noreturn]] void Fail(const std::string& path, const char* problem, const char* cause) {
  Fail(path, std::string(problem) + " (" + cause + ")");
}

/// Opens without blocking: regular files, and pipes where they are wanted.
int Open(const std::string& path, int flags, SoundReader::Kind kind) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, 0644);
  if (fd < 0) Fail(path, "cannot be opened", ErrorText(errno).c_str());
  struct stat status {};
  fstat(fd, &status);
  if (S_ISREG(status.st_mode)) return fd;
  if (S_ISFIFO(status.st_mode) && kind == SoundReader::Kind::kAlsoPipes) {
    fcntl(fd, F_SETFL, 0);  // its writer may take its time
    return fd;
  }
  close(fd);
  Fail(path, "is not a regular file");
}

/// The nearest integer of so many bits, in the upper bits of 32.
int Quantize(double value, uint32_t bits) {
  const double scale = std::ldexp(1.0, static_cast<int>(bits) - 1);
  const auto number =
      static_cast<int64_t>(std::llrint(std::clamp(value * scale, -scale, scale - 1)));
  return static_cast<int>(number * (int64_t{1} << (32 - bits)));
}

}  // namespace

void SoundFileCloser::operator()(sf_private_tag* file) const {
  Sndfile().close(file);
}

SoundWriter::SoundWriter(const std::string& path, const SoundFormat& format, Container container)
    : path_(path), format_(format), container_(container) {
  const int subtype = SubtypeOf(format);
  const bool fits =
      container == Container::kWav || (format.encoding == Kvox::DataFormat::INT &&
                                       format.bits < 32 && format.channels <= kMostFlacChannels);
  if (subtype == 0 || format.channels == 0 || !fits) {
    Fail(path, "cannot hold " + Describe(format) + (fits ? "" : "; a WAV file can"));
  }
  const Library& library = Sndfile();
  const int fd = Open(path, O_RDWR | O_CREAT, SoundReader::Kind::kFile);
  SF_INFO info{};
  info.samplerate = static_cast<int>(format.sample_rate);
  info.channels = static_cast<int>(format.channels);
  info.format = (container == Container::kWav ? SF_FORMAT_WAV : SF_FORMAT_FLAC) | subtype;
  if (ftruncate(fd, 0) == 0) file_.reset(library.open_fd(fd, SFM_WRITE, &info, SF_TRUE));
  if (!file_) Fail(path, "cannot be created", library.strerror(nullptr));
  library.command(file_.get(), SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
}

void SoundWriter::Write(std::span<const std::byte> frames) {
  const auto size = static_cast<sf_count_t>(frames.size());
  if (container_ == Container::kWav) {
    if (Sndfile().write_raw(file_.get(), frames.data(), size) == size) return;
  } else {
    const size_t width = format_.bits / 8;
    ints_.assign(frames.size() / width, 0);
    for (size_t i = 0; i < ints_.size(); ++i) {  // the upper bytes of 32 bits
      std::memcpy(reinterpret_cast<std::byte*>(&ints_[i]) + sizeof(int) - width, &frames[i * width],
                  width);
    }
    const auto count = static_cast<sf_count_t>(frames.size() / format_.FrameSize());
    if (Sndfile().writef_int(file_.get(), ints_.data(), count) == count) return;
  }
  Fail(path_, "cannot be written", Sndfile().strerror(file_.get()));
}

void SoundWriter::Close() {
  if (!file_ || Sndfile().close(file_.release()) == 0) return;
  Fail(path_, "cannot be completed; see that its disk has room");
}

SoundReader::SoundReader(const std::string& path, Kind kind) : path_(path) {
  const Library& library = Sndfile();
  SF_INFO info{};
  file_.reset(library.open_fd(Open(path, O_RDONLY, kind), SFM_READ, &info, SF_TRUE));
  if (!file_) Fail(path, "cannot be read as audio", library.strerror(nullptr));
  if (info.seekable == 0 && kind == Kind::kFile) Fail(path, "cannot be read from any place");
  subtype_ = info.format & SF_FORMAT_SUBMASK;
  sample_rate_ = static_cast<uint32_t>(info.samplerate);
  channels_ = static_cast<uint32_t>(info.channels);
  frame_count_ = static_cast<uint64_t>(info.frames);
}

bool SoundReader::CanConvertTo(const SoundFormat& format) const {
  const int subtype = SubtypeOf(format);
  return subtype != 0 && (subtype != SF_FORMAT_ULAW || subtype_ == SF_FORMAT_ULAW);
}

void SoundReader::ConvertTo(const SoundFormat& format) {
  if (sample_rate_ != format.sample_rate || (channels_ != format.channels && channels_ != 1)) {
    Fail(path_, "has " + std::to_string(sample_rate_) + " Hz and " + std::to_string(channels_) +
                    " channels; expected " + Describe(format) + "; convert it first");
  }
  if (!CanConvertTo(format)) Fail(path_, "cannot be converted to " + Describe(format));
  format_ = format;
}

void SoundReader::Seek(uint64_t frame) {
  if (frame != position_) Sndfile().seek(file_.get(), static_cast<sf_count_t>(frame), SEEK_SET);
  position_ = frame;
}

size_t SoundReader::ReadDoubles(std::span<double> samples) {
  const auto count = static_cast<sf_count_t>(samples.size() / channels_);
  const sf_count_t got = Sndfile().readf_double(file_.get(), samples.data(), count);
  position_ += static_cast<uint64_t>(std::max<sf_count_t>(got, 0));
  return static_cast<size_t>(std::max<sf_count_t>(got, 0));
}

/// Fills `samples_` with up to `count` frames, and returns how many there were.
size_t SoundReader::ReadSamples(size_t count) {
  const size_t width = format_.bits / 8;
  const auto frames = static_cast<sf_count_t>(count);
  sf_count_t got = 0;
  samples_.resize(count * channels_ * width);
  if (format_.encoding == Kvox::DataFormat::SULAW) {
    const auto size = static_cast<sf_count_t>(samples_.size());
    got = Sndfile().read_raw(file_.get(), samples_.data(), size) / channels_;
  } else if (format_.encoding == Kvox::DataFormat::FLOAT) {
    got = Sndfile().readf_float(file_.get(), reinterpret_cast<float*>(samples_.data()), frames);
  } else {
    ints_.resize(count * channels_);
    if (HasIntegers(subtype_)) {
      got = Sndfile().readf_int(file_.get(), ints_.data(), frames);
    } else {
      doubles_.resize(ints_.size());
      got = Sndfile().readf_double(file_.get(), doubles_.data(), frames);
      std::ranges::transform(doubles_, ints_.begin(),
                             [&](double value) { return Quantize(value, format_.bits); });
    }
    for (size_t i = 0; i < ints_.size(); ++i) {  // the upper bytes of 32 bits
      std::memcpy(&samples_[i * width],
                  reinterpret_cast<const std::byte*>(&ints_[i]) + sizeof(int) - width, width);
    }
  }
  position_ += static_cast<uint64_t>(std::max<sf_count_t>(got, 0));
  return static_cast<size_t>(std::max<sf_count_t>(got, 0));
}

size_t SoundReader::Read(std::span<std::byte> frames) {
  const size_t width = format_.bits / 8;
  const size_t got = ReadSamples(frames.size() / format_.FrameSize());
  for (size_t i = 0; i < got * format_.channels; ++i) {
    const size_t from = channels_ == 1 ? i / format_.channels : i;
    std::memcpy(&frames[i * width], &samples_[from * width], width);
  }
  const std::byte silence{format_.encoding == Kvox::DataFormat::SULAW ? uint8_t{0xff} : uint8_t{0}};
  std::ranges::fill(frames.subspan(got * format_.FrameSize()), silence);
  return got * format_.FrameSize();
}

}  // namespace kvox
