// The file that a capture writes; an interface that tests replace.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace kvox {

/// An open file; it closes with the object. One thread at a time, never the packet path.
class CaptureFile {
 public:
  virtual ~CaptureFile() = default;

  /// As write(2): may write fewer bytes than given; -1 on failure.
  virtual ssize_t Write(std::span<const std::byte> bytes) = 0;

  /// Moves to the start of the file. False on failure.
  virtual bool Rewind() = 0;
};

/// Opens the file of that path; null, after a log line with the cause, when that fails.
using CaptureFileOpener = std::function<std::unique_ptr<CaptureFile>(const std::string& path)>;

/// Creates the file (mode 0640), or empties the one that is there. Only regular files: links,
/// devices, FIFOs and directories are refused untouched.
std::unique_ptr<CaptureFile> OpenCaptureFile(const std::string& path);

}  // namespace kvox
