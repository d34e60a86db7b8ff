#include "processors/passthru_processor.h"

#include <algorithm>
#include <cstring>

namespace kvox {
namespace {

/// One switching at a time, among all passthrough processors.
Mutex enable_mutex;

}  // namespace

int32_t PassthruProcessor::Enable(bool enable) {
  MutexLock lock(enable_mutex);
  KvoxProcessor::Enable(enable);
  SetEnabled(enable);
  return 0;
}

int32_t PassthruProcessor::ProcessBlock(const void* in, size_t in_size, void* out,
                                        size_t out_size) {
  if (!IsEnabled()) return 0;
  ProcessBlockBegin();
  if (out != nullptr) {
    const size_t copied = std::min(in_size, out_size);
    if (copied > 0) std::memcpy(out, in, copied);
    std::memset(static_cast<std::byte*>(out) + copied, 0, out_size - copied);
  }
  ProcessBlockEnd();
  return 0;
}

BlockResult PassthruProcessor::ProcessPacket(const Block&, OutputArea*) {
  if (!IsEnabled()) return {};
  ProcessBlockBegin();
  ProcessBlockEnd();
  return {.output_is_input = true};
}

}  // namespace kvox
