#include "client/audio/sound_file.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

/// The functions we use, with the library's own types.
struct Library {
  decltype(&sf_open_fd) open_fd = nullptr;
  decltype(&sf_close) close = nullptr;
  decltype(&sf_command) command = nullptr;
  decltype(&sf_strerror) error_text = nullptr;
  decltype(&sf_write_raw) write_raw = nullptr;
  decltype(&sf_readf_short) read_short = nullptr;
  decltype(&sf_readf_int) read_int = nullptr;
  decltype(&sf_readf_float) read_float = nullptr;
};

template <typename Function>
bool Load(void* handle, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(handle, name));
  return function != nullptr;
}

const Library& Sndfile() {
  static const Library library = [] {
    Library loaded;
    void* const handle = dlopen("libsndfile.so.1", RTLD_NOW);
    const bool complete = handle != nullptr && Load(handle, "sf_open_fd", loaded.open_fd) &&
                          Load(handle, "sf_close", loaded.close) &&
                          Load(handle, "sf_command", loaded.command) &&
                          Load(handle, "sf_strerror", loaded.error_text) &&
                          Load(handle, "sf_write_raw", loaded.write_raw) &&
                          Load(handle, "sf_readf_short", loaded.read_short) &&
                          Load(handle, "sf_readf_int", loaded.read_int) &&
                          Load(handle, "sf_readf_float", loaded.read_float);
    if (!complete) {
      const char* const cause = dlerror();
      throw SoundFileError(std::string("libsndfile cannot be used: ") +
                           (cause != nullptr ? cause : "unknown version") +
                           "; install the package libsndfile1");
    }
    return loaded;
  }();
  return library;
}

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

int SubtypeOf(const StreamFormat& format) {
  for (const SubtypeRow& row : kSubtypes) {
    if (row.encoding == format.encoding && row.bits == format.bits) return row.subtype;
  }
  return 0;
}

[[noreturn]] void Fail(const std::string& path, const std::string& cause) {
  throw SoundFileError("'" + path + "' " + cause);
}

/// Opens regular files only, and never waits for one.
int OpenRegular(const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, 0644);
  if (fd < 0) Fail(path, std::string("cannot be opened: ") + ErrorText(errno).c_str());
  struct stat status {};
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) return fd;
  close(fd);
  Fail(path, "is not a regular file");
}

}  // namespace

std::string Describe(const StreamFormat& format) {
  const char* const name = DataFormatName(format.encoding);
  return std::to_string(format.sample_rate) + " Hz, " + std::to_string(format.channels) +
         (format.channels == 1 ? " channel, " : " channels, ") + (name != nullptr ? name : "?") +
         std::to_string(format.bits);
}

SoundWriter::SoundWriter(const std::string& path, const StreamFormat& format) : path_(path) {
  const int subtype = SubtypeOf(format);
  if (subtype == 0 || format.channels == 0) Fail(path, "cannot hold " + Describe(format));
  const int fd = OpenRegular(path, O_RDWR | O_CREAT);
  if (ftruncate(fd, 0) != 0) Fail(path, "cannot be emptied");
  SF_INFO info{};
  info.samplerate = static_cast<int>(format.sample_rate);
  info.channels = static_cast<int>(format.channels);
  info.format = SF_FORMAT_WAV | subtype;
  file_.reset(Sndfile().open_fd(fd, SFM_WRITE, &info, SF_TRUE));
  if (!file_) Fail(path, std::string("cannot be begun: ") + Sndfile().error_text(nullptr));
  Sndfile().command(file_.get(), SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
}

void SoundWriter::Write(std::span<const std::byte> frames) {
  const auto size = static_cast<sf_count_t>(frames.size());
  if (Sndfile().write_raw(file_.get(), frames.data(), size) == size) return;
  Fail(path_, std::string("cannot be written: ") + Sndfile().error_text(file_.get()));
}

void SoundWriter::Closer::operator()(sf_private_tag* file) const {
  Sndfile().close(file);
}

SoundReader::SoundReader(const std::string& path) : path_(path) {
  SF_INFO info{};
  file_.reset(Sndfile().open_fd(OpenRegular(path, O_RDONLY), SFM_READ, &info, SF_TRUE));
  if (!file_) {
    Fail(path, std::string("cannot be read as audio: ") + Sndfile().error_text(nullptr));
  }
  Sndfile().command(file_.get(), SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
  frame_count_ = static_cast<uint64_t>(info.frames);
  file_rate_ = static_cast<uint32_t>(info.samplerate);
  file_channels_ = static_cast<uint32_t>(info.channels);
}

void SoundReader::ConvertTo(const StreamFormat& format) {
  const bool fits = file_rate_ == format.sample_rate &&
                    (file_channels_ == format.channels || file_channels_ == 1);
  if (!fits) {
    Fail(path_, "has " + std::to_string(file_rate_) + " Hz and " + std::to_string(file_channels_) +
                    " channels, the processor wants " + Describe(format) + "; convert it first");
  }
  if (format.encoding == Kvox::DataFormat::SULAW || format.bits < 16) {
    Fail(path_, "cannot be converted to " + Describe(format));
  }
  format_ = format;
}

/// Reads samples of one type, and puts mono on every channel.
template <typename Sample, typename Function>
size_t SoundReader::ReadAs(std::span<std::byte> frames, Function function) {
  const size_t count = frames.size() / (sizeof(Sample) * format_.channels);
  std::vector<Sample> samples(count * file_channels_);
  const auto got =
      static_cast<size_t>(function(file_.get(), samples.data(), static_cast<sf_count_t>(count)));
  auto* const out = reinterpret_cast<Sample*>(frames.data());
  for (size_t at = 0; at < got * format_.channels; ++at) {
    out[at] = file_channels_ == 1 ? samples[at / format_.channels] : samples[at];
  }
  return got;
}

size_t SoundReader::Read(std::span<std::byte> frames) {
  std::memset(frames.data(), 0, frames.size());
  if (format_.encoding == Kvox::DataFormat::FLOAT) {
    return ReadAs<float>(frames, Sndfile().read_float) * format_.FrameSize();
  }
  if (format_.bits == 16) return ReadAs<short>(frames, Sndfile().read_short) * format_.FrameSize();
  if (format_.bits == 32) return ReadAs<int>(frames, Sndfile().read_int) * format_.FrameSize();
  // Three bytes a sample: the upper ones of 32 bits.
  const size_t samples = frames.size() / 3;
  std::vector<int> wide(samples);
  const size_t got = ReadAs<int>(std::as_writable_bytes(std::span(wide)), Sndfile().read_int);
  for (size_t at = 0; at < samples; ++at) {
    std::memcpy(&frames[at * 3], reinterpret_cast<const std::byte*>(&wide[at]) + 1, 3);
  }
  return got * format_.FrameSize();
}

void SoundReader::Closer::operator()(sf_private_tag* file) const {
  Sndfile().close(file);
}

}  // namespace kvox::client
