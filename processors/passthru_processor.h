// Passes each tap-out block unchanged into the inject buffer; silence while disabled.
#pragma once

#include "processors/kvox_processor.h"

namespace kvox {

class PassthruProcessor : public KvoxProcessor {
 public:
  static constexpr FourCc kType = MakeFourCc("pass");

  using KvoxProcessor::KvoxProcessor;

  int32_t Enable(bool enable) override;
  /// RT: copies what fits and zero-fills the rest. Without an output area only the statistics run.
  int32_t ProcessBlock(const void* in, size_t in_size, void* out, size_t out_size) override;
  /// RT: lets the input be sent as it is, without a copy.
  BlockResult ProcessPacket(const Block& block, OutputArea* out) override;
};

}  // namespace kvox
