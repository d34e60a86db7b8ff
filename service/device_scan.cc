#include "service/device_scan.h"

#include <glob.h>

#include <climits>
#include <cstdlib>

#include "kvox/common/device_names.h"

namespace kvox {
namespace {

/// Escapes the text as a glob pattern.
std::string Literally(const std::string& text) {
  std::string pattern;
  for (const char c : text) {
    if (std::string_view("*?[\\").find(c) != std::string_view::npos) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

/// Paths with a common prefix, sorted; none when nothing matches.
class Glob {
 public:
  explicit Glob(const std::string& prefix)
      : matched_(glob((Literally(prefix) + "*").c_str(), 0, nullptr, &paths_) == 0) {}
  ~Glob() { globfree(&paths_); }
  Glob(const Glob&) = delete;
  Glob& operator=(const Glob&) = delete;

  bool matched() const { return matched_; }

  std::vector<DataDevice> Devices(const std::string& prefix,
                                  const std::string& buffer_prefix) const {
    std::vector<DataDevice> devices;
    for (size_t i = 0; matched_ && i < paths_.gl_pathc; ++i) {
      const std::string path = paths_.gl_pathv[i];
      const std::string rest = path.substr(prefix.size());
      const std::optional<int> number = DeviceNumber(rest);
      if (number) devices.push_back({*number, buffer_prefix + rest, path});
    }
    return devices;
  }

 private:
  glob_t paths_ = {};
  const bool matched_;
};

}  // namespace

std::optional<int> DeviceNumber(std::string_view rest) {
  const std::string text(rest);
  const long number = std::strtol(text.c_str(), nullptr, 10);
  if ((number > 0 && number <= INT_MAX) || text == "0") return static_cast<int>(number);
  return std::nullopt;
}

DeviceScan ScanDataDevices(const std::string& directory) {
  const std::string tapout_prefix = directory + "/" + kTapOutPrefix;
  const std::string inject_prefix = directory + "/" + kInjectPrefix;
  DeviceScan scan;
  const Glob tapouts(tapout_prefix);
  scan.any_tapout_path = tapouts.matched();
  if (!scan.any_tapout_path) return scan;
  scan.tapouts = tapouts.Devices(tapout_prefix, kTapOutBufferPrefix);
  scan.injects = Glob(inject_prefix).Devices(inject_prefix, kInjectBufferPrefix);
  return scan;
}

}  // namespace kvox
