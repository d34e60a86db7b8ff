#include "buffer/rx_report.h"

#include <array>
#include <cstdio>

#include "kvox/common/log.h"

namespace kvox {
namespace {

using Description = std::array<char, 64>;

Description Describe(const KvoxPacketHeader& header) {
  const KvoxTapFormat& format = header.format;
  const uint32_t frame = FrameSize(format);
  const uint32_t block =
      frame == 0 ? 0 : header.payload_size / format.channels / format.bytes_per_sample;
  Description text;
  snprintf(text.data(), text.size(), "%gkHz %uch %uBps, block len %u, noninterleaved %u",
           static_cast<double>(static_cast<float>(format.sample_rate) / 1000.0f), format.channels,
           format.bytes_per_sample, block, format.noninterleaved_samples);
  return text;
}

}  // namespace

void LogFindings(const char* buffer, const StreamFindings& findings) {
  if (findings.misaligned > 0) {
    LogError("%s: RX alignment error, %u bytes received", buffer, findings.misaligned);
  }
  if (findings.skipped > 0) LogInfo("%s skipping %u bytes", buffer, findings.skipped);
  if (findings.bad_version) {
    LogError("%s: Invalid packet version %u (expected %u)", buffer, *findings.bad_version,
             kPacketVersion);
  }
  if (findings.bad_payload_size) {
    LogError("%s: Invalid payload size %u", buffer, *findings.bad_payload_size);
  }
  if (findings.BadHeader()) LogError("header not found");
  if (findings.excess > 0) {
    LogError("%s received excess %u bytes (%u > %u)", buffer, findings.excess, findings.assembled,
             findings.expected);
  }
}

void LogTiming(const char* buffer, TimingVerdict::Arrival arrival, float elapsed_ms) {
  if (arrival == TimingVerdict::Arrival::kOnTime) return;
  const char* const what = arrival == TimingVerdict::Arrival::kEarly ? "early" : "late";
  LogWarning("%s RX packet is %s, period:%g ms", buffer, what, static_cast<double>(elapsed_ms));
}

bool FormatDiffers(const KvoxPacketHeader& a, const KvoxPacketHeader& b) {
  return a.format.sample_rate != b.format.sample_rate || a.format.channels != b.format.channels ||
         a.format.bytes_per_sample != b.format.bytes_per_sample ||
         a.format.data_format != b.format.data_format ||
         a.format.noninterleaved_samples != b.format.noninterleaved_samples ||
         a.payload_size != b.payload_size;
}

void LogFormatChange(const char* buffer, const KvoxPacketHeader& before,
                     const KvoxPacketHeader& now) {
  LogInfo("%s: RX format change %s --> %s", buffer, Describe(before).data(), Describe(now).data());
}

}  // namespace kvox
