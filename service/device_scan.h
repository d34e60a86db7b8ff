// Finds the data devices.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvox {

struct DataDevice {
  int number;
  std::string name;  // of the buffer: "tapout0"
  std::string path;
};

/// The number of a data device, from the rest of its name: decimal digits at the front, above 0, or
/// exactly "0". Other names are not data devices.
std::optional<int> DeviceNumber(std::string_view rest);

struct DeviceScan {
  bool any_tapout_path = false;  // whether anything looked like a tap-out device
  std::vector<DataDevice> tapouts;
  std::vector<DataDevice> injects;
};

/// Scans `directory`. Each list is in the order of the paths and may contain a number twice; the
/// first one counts.
DeviceScan ScanDataDevices(const std::string& directory);

}  // namespace kvox
