// Example of a processor kind: makes 16-bit integer audio louder or softer by a factor that clients
// set. docs/new-processor.md goes through it step by step.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "processors/kvox_processor.h"

namespace kvox {

class GainProcessor : public KvoxProcessor {
 public:
  static constexpr FourCc kType = MakeFourCc("gain");

  /// The factor, a float from 0 to kMaxGain; 1 at first. Being an example, it has a number far from
  /// those of the contract.
  static constexpr auto kGain = IKvox::ParameterId{1000};
  static constexpr float kMaxGain = 16.0f;

  using KvoxProcessor::KvoxProcessor;

  void Info(const std::string& input, const std::string& output,
            std::vector<std::string>& lines) const override;

  int32_t SetParameter(IKvox::ParameterId id, int element, const IKvox::ParamValue& value,
                       const TapForward& forward) override;
  int32_t GetParameter(IKvox::ParameterId id, int element, IKvox::ParamValue* value) const override;

  /// RT: louder samples than 16 bits can hold are limited. While disabled, and with status -1 for a
  /// block of another format, the output stays silent.
  BlockResult ProcessBlock(const Block& block, OutputArea* out) override;

 protected:
  /// Refuses everything but integer samples of 16 bits.
  bool SetFormatField(FormatField field, uint32_t value) override;

 private:
  std::atomic<float> gain_ = 1.0f;  // relaxed: it stands for itself
};

}  // namespace kvox
