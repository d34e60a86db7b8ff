// Passes each tap-out block unchanged into the inject buffer; silence while disabled.
#pragma once

#include "processors/kvox_processor.h"

namespace kvox {

class PassthruProcessor : public KvoxProcessor {
 public:
  static constexpr FourCc kType = MakeFourCc("pass");

  using KvoxProcessor::KvoxProcessor;

  /// RT: has the input sent as it is, without a copy.
  BlockResult ProcessBlock(const Block& block, OutputArea*) override {
    if (!IsEnabled()) return {};
    const MeasuredBlock measured(stats(), block);
    return {.output_is_input = true};
  }
};

}  // namespace kvox
