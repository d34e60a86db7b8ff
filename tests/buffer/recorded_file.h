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
  bool start_fails = false;
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
    script_.text.append(reinterpret_cast<const char*>(bytes.data()), static_cast<size_t>(result));
    return result;
  }
  bool WriteStart(std::span<const std::byte> bytes) override {
    if (script_.start_fails) return false;
    script_.text.replace(0, bytes.size(), reinterpret_cast<const char*>(bytes.data()),
                         bytes.size());
    return true;
  }
  bool CutTo(uint64_t size) override { return script_.text.resize(size), true; }

 private:
  FileScript& script_;
};

/// The 44 bytes that a file of this audio begins with.
inline std::string HeaderOf(int rate, int channels, int bits, unsigned long samples,
                            WavFormat_t format) {
  WavHeader header;
  InitHeaderWAV(&header, rate, channels, bits, samples, format);
  return {reinterpret_cast<const char*>(&header), sizeof header};
}

}  // namespace kvox
