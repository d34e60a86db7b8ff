// Captures of a fuzzed service are dropped: a client could name any file on this machine.

#include "buffer/capture_file.h"

namespace kvox {
namespace {

class Nowhere : public CaptureFile {
 public:
  ssize_t Write(std::span<const std::byte> bytes) override {
    return static_cast<ssize_t>(bytes.size());
  }
  bool WriteStart(std::span<const std::byte>) override { return true; }
  bool CutTo(uint64_t) override { return true; }
};

}  // namespace

std::unique_ptr<CaptureFile> OpenCaptureFile(const std::string& path, std::string&) {
  return path.size() % 8 == 7 ? nullptr : std::make_unique<Nowhere>();
}

}  // namespace kvox
