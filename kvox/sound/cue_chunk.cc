#include "kvox/sound/cue_chunk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <string_view>

#include "kvox/common/fixed_text.h"
#include "kvox/common/unique_fd.h"
#include "kvox/sound/sound_file.h"

namespace kvox {
namespace {

constexpr size_t kRiffHeader = 12;     // "RIFF", size, "WAVE"
constexpr size_t kChunkHeader = 8;     // name, size
constexpr size_t kCueSize = 24;        // of a mark in the cue chunk
constexpr size_t kMostCues = 100'000;  // of a file that is read
constexpr size_t kLongestChunk = 1 << 26;
constexpr size_t kLongestLabel = 4096;

using Bytes = std::vector<char>;

void Put32(Bytes& bytes, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<char>(value >> shift));
}

void PutText(Bytes& bytes, std::string_view text) {
  bytes.insert(bytes.end(), text.begin(), text.end());
}

/// A chunk around `content`, padded to an even length.
void PutChunk(Bytes& bytes, const char* name, const Bytes& content) {
  PutText(bytes, name);
  Put32(bytes, static_cast<uint32_t>(content.size()));
  bytes.insert(bytes.end(), content.begin(), content.end());
  if (content.size() % 2 != 0) bytes.push_back('\0');
}

Bytes ChunksOf(const std::vector<CueMark>& marks) {
  Bytes cues;
  Bytes list;
  Put32(cues, static_cast<uint32_t>(marks.size()));
  PutText(list, "adtl");
  uint32_t id = 0;
  for (const CueMark& mark : marks) {
    ++id;
    Put32(cues, id);
    Put32(cues, mark.position);
    PutText(cues, "data");
    Put32(cues, 0);  // the chunk's begin
    Put32(cues, 0);  // the block's begin
    Put32(cues, mark.position);
    Bytes length;
    Put32(length, id);
    Put32(length, mark.frames);
    PutText(length, "rgn ");
    length.resize(length.size() + 8);  // country, language, dialect, code page
    PutChunk(list, "ltxt", length);
    Bytes label;
    Put32(label, id);
    PutText(label, std::string_view(mark.label).substr(0, kLongestLabel));
    label.push_back('\0');
    PutChunk(list, "labl", label);
  }
  Bytes chunks;
  PutChunk(chunks, "cue ", cues);
  PutChunk(chunks, "LIST", list);
  return chunks;
}

[[noreturn]] void Fail(const std::string& path, const char* problem) {
  throw SoundFileError("'" + path + "' " + problem);
}

bool ReadAt(int fd, uint64_t offset, void* to, size_t size) {
  return pread(fd, to, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

bool WriteAt(int fd, uint64_t offset, const void* from, size_t size) {
  return pwrite(fd, from, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

/// Reads numbers and texts; what is behind the end reads as 0 and "".
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  bool empty() const { return bytes_.empty(); }

  uint32_t Take32() {
    uint32_t value = 0;
    const std::string_view bytes = Take(sizeof value);
    if (bytes.size() == sizeof value) std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }

  std::string_view Take(size_t size) {
    const std::string_view taken = bytes_.substr(0, size);
    bytes_.remove_prefix(taken.size());
    return taken;
  }

 private:
  std::string_view bytes_;
};

void ReadCueChunk(std::string_view content, std::map<uint32_t, CueMark>& marks,
                  std::vector<uint32_t>& order) {
  Reader reader(content);
  const size_t count = std::min<size_t>({reader.Take32(), content.size() / kCueSize, kMostCues});
  for (size_t i = 0; i < count; ++i) {
    Reader cue(reader.Take(kCueSize));
    const uint32_t id = cue.Take32();
    cue.Take(kCueSize - 2 * sizeof id);
    if (marks.try_emplace(id, CueMark{.position = cue.Take32()}).second) order.push_back(id);
  }
}

void ReadListChunk(std::string_view content, std::map<uint32_t, CueMark>& marks) {
  Reader reader(content);
  if (reader.Take(4) != "adtl") return;
  while (!reader.empty()) {
    const std::string_view name = reader.Take(4);
    const uint32_t size = reader.Take32();
    Reader part(reader.Take(size));
    if (size % 2 != 0) reader.Take(1);
    const auto mark = marks.find(part.Take32());
    if (mark == marks.end()) continue;
    if (name == "ltxt") mark->second.frames = part.Take32();
    if (name == "labl") {
      const std::string_view text = part.Take(kLongestLabel);
      mark->second.label = ValidUtf8(std::string(text.substr(0, text.find('\0'))));
    }
  }
}

}  // namespace

void AppendCues(const std::string& path, const std::vector<CueMark>& marks) {
  if (marks.empty()) return;
  const UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) Fail(path, "cannot be opened");
  const auto end = static_cast<uint64_t>(status.st_size);
  Bytes chunks = ChunksOf(marks);
  if (end % 2 != 0) chunks.insert(chunks.begin(), '\0');  // the data chunk's padding
  const uint64_t riff_size = end + chunks.size() - kChunkHeader;
  if (riff_size > UINT32_MAX) Fail(path, "is too large for marks; list the gaps with --gaps");
  const auto size = static_cast<uint32_t>(riff_size);
  if (WriteAt(fd.get(), end, chunks.data(), chunks.size()) &&
      WriteAt(fd.get(), 4, &size, sizeof size)) {
    return;
  }
  const int cause = errno;
  static_cast<void>(!ftruncate(fd.get(), status.st_size));
  Fail(path, (std::string("has no room for marks (") + ErrorText(cause).c_str() +
              "); its audio is complete")
                 .c_str());
}

std::vector<CueMark> ReadCues(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  std::array<char, kRiffHeader> head = {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) Fail(path, "cannot be opened");
  if (!ReadAt(fd.get(), 0, head.data(), head.size()) || std::memcmp(&head[0], "RIFF", 4) != 0 ||
      std::memcmp(&head[8], "WAVE", 4) != 0) {
    Fail(path, "is no WAV file");
  }
  std::map<uint32_t, CueMark> marks;
  std::vector<uint32_t> order;
  const auto end = static_cast<uint64_t>(status.st_size);
  for (uint64_t at = kRiffHeader; at + kChunkHeader <= end;) {
    std::array<char, kChunkHeader> chunk = {};
    uint32_t size = 0;
    if (!ReadAt(fd.get(), at, chunk.data(), chunk.size())) break;
    std::memcpy(&size, &chunk[4], sizeof size);
    const std::string_view name(chunk.data(), 4);
    at += kChunkHeader;
    if ((name == "cue " || name == "LIST") && size <= kLongestChunk && at + size <= end) {
      std::string content(size, '\0');
      if (!ReadAt(fd.get(), at, content.data(), size)) break;
      name == "cue " ? ReadCueChunk(content, marks, order) : ReadListChunk(content, marks);
    }
    at += size + size % 2;
  }
  std::vector<CueMark> found;
  for (const uint32_t id : order) found.push_back(marks[id]);
  return found;
}

}  // namespace kvox
