// The file that a capture writes; an interface that tests replace.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace kvox {

/// An open file, which no other capture can open; it closes with the object. One thread at a time,
/// never the packet path.
class CaptureFile {
 public:
  virtual ~CaptureFile() = default;

  /// As write(2): may write fewer bytes than given; -1 on failure.
  virtual ssize_t Write(std::span<const std::byte> bytes) = 0;

  /// Overwrites the start of the file, which needs no room on the disk. False on failure.
  virtual bool WriteStart(std::span<const std::byte> bytes) = 0;

  /// Cuts off what is behind the first `size` bytes. False on failure.
  virtual bool CutTo(uint64_t size) = 0;
};

/// Opens the file of that path; null, after a log line, when that fails, with the cause in `why`.
using CaptureFileOpener =
    std::function<std::unique_ptr<CaptureFile>(const std::string& path, std::string& why)>;

/// Creates the file (mode 0640), or opens the one that is there as it is. Only regular files of
/// this user that have one name and that nobody else captures into: everything else is refused
/// untouched.
std::unique_ptr<CaptureFile> OpenCaptureFile(const std::string& path, std::string& why);

}  // namespace kvox
