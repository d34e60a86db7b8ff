#include "kvox/common/kvox_utils.h"

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr char kUnitName[] = "kvox/common/kvox_utils";
constexpr char kUnitTag[] = "kvox_utils";

constexpr std::array<unsigned int, 8> kSampleRates = {8000,  16000, 24000, 32000,
                                                      44100, 48000, 96000, 192000};

}  // namespace

uint8_t SampleRateToEnum(unsigned int rate) {
  const auto* found = std::find(kSampleRates.begin(), kSampleRates.end(), rate);
  if (found == kSampleRates.end()) return kNoSampleRateCode;
  return static_cast<uint8_t>(found - kSampleRates.begin());
}

unsigned int SampleRateOfCode(uint8_t code) {
  return code < kSampleRates.size() ? kSampleRates[code] : 0;
}

uint32_t BitsPerSampleToEnum(unsigned int bits) {
  if (bits < 8 || bits > 32 || bits % 8 != 0) return kNoSampleSizeCode;
  return bits / 8 - 1;
}

uint64_t GetTimestampNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return static_cast<uint64_t>(static_cast<double>(now.tv_sec) * 1e9 +
                               static_cast<double>(now.tv_nsec));
}

uint64_t WallClockNs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

int RealtimePriority() {
  return sched_get_priority_max(SCHED_FIFO);
}

int SetThreadRealtimePriority() {
  constexpr pid_t kCallingThread = 0;
  sched_param param{};
  param.sched_priority = RealtimePriority();
  const int status = sched_setscheduler(kCallingThread, SCHED_FIFO, &param);
  if (status != 0) {
    LogTagged(LogPriority::kError, kUnitTag, "%s failed. status %d, errno %d, pid %u", kUnitName,
              status, errno, static_cast<unsigned>(kCallingThread));
  }
  return status;
}

void SetThreadName(const char* name) {
  pthread_setname_np(pthread_self(), std::string(name).substr(0, 15).c_str());
}

}  // namespace kvox
