// Example of a processor kind: scales 16-bit integer audio by a factor that clients set.
// docs/new-processor.md explains it step by step.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "processors/kvox_processor.h"

namespace kvox {

class GainProcessor : public KvoxProcessor {
 public:
  static constexpr FourCc kType = MakeFourCc("gain");

  /// The factor, a float from 0 to kMaxGain; initially 1. As an example it has a number far from
  /// those of the contract.
  static constexpr auto kGain = IKvox::ParameterId{1000};
  static constexpr float kMaxGain = 16.0f;

  using KvoxProcessor::KvoxProcessor;

  void Info(const std::string& input, const std::string& output,
            std::vector<std::string>& lines) const override;

  int32_t SetParameter(IKvox::ParameterId id, int element, const IKvox::ParamValue& value,
                       const TapForward& forward) override;
  int32_t GetParameter(IKvox::ParameterId id, int element, IKvox::ParamValue* value) const override;

  /// RT: clips samples to 16 bits. The output is silent while disabled, and for a block of another
  /// format, which returns status -1.
  BlockResult ProcessBlock(const Block& block, OutputArea* out) override;

 protected:
  /// Refuses everything but integer samples of 16 bits.
  bool SetFormatField(FormatField field, uint32_t value) override;

 private:
  std::atomic<float> gain_ = 1.0f;  // relaxed: publishes nothing else
};

}  // namespace kvox
