// A capture's file in memory, whose writes fail, are partial or block as a test says.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <string>

#include "buffer/capture_file.h"
#include "kvox/common/wav_header.h"

namespace kvox {

/// A file's scripted behaviour and its contents. Outlives the file.
struct FileScript {
  std::deque<ssize_t> results;  // of the next writes; when empty, writes are complete
  std::function<ssize_t(ssize_t asked)> decide;  // on the result of every write, where it is set
  std::atomic<bool> blocked = false;
  std::atomic<bool> entered = false;  // a write has begun
  std::string text;
  bool closed = false;
};

class RecordedFile : public CaptureFile {
 public:
  explicit RecordedFile(FileScript& script) : script_(script) {}
  ~RecordedFile() override { script_.closed = true; }

  ssize_t Write(std::span<const std::byte> bytes) override {
    script_.entered = true;
    script_.blocked.wait(true);
    auto result = static_cast<ssize_t>(bytes.size());
    if (script_.decide) {
      result = script_.decide(result);
    } else if (!script_.results.empty()) {
      result = script_.results.front();
      script_.results.pop_front();
    }
    if (result <= 0) return result;
    const auto size = static_cast<size_t>(result);
    script_.text.replace(at_, size, reinterpret_cast<const char*>(bytes.data()), size);
    at_ += size;
    return result;
  }
  bool Rewind() override { return at_ = 0, true; }

 private:
  FileScript& script_;
  size_t at_ = 0;
};

/// The 44 bytes that a file of this audio begins with.
inline std::string HeaderOf(int rate, int channels, int bits, unsigned long samples,
                            WavFormat_t format) {
  WavHeader header;
  InitHeaderWAV(&header, rate, channels, bits, samples, format);
  return {reinterpret_cast<const char*>(&header), sizeof header};
}

}  // namespace kvox
