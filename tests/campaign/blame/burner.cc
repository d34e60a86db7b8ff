// A kind of processor for the daemon under test: it passes audio on, and can be told to take long.

#include "processors/passthru_processor.h"
#include "service/processor_kinds.h"

namespace kvox {
namespace {

constexpr uint64_t kBurnNs = 28'000'000;

class BurningProcessor : public PassthruProcessor {
 public:
  static constexpr FourCc kType = MakeFourCc("burn");
  using PassthruProcessor::PassthruProcessor;

  /// TEST_MODE: the next block takes 28 ms.
  int32_t SetParameter(IKvox::ParameterId id, int element, const IKvox::ParamValue& value,
                       const TapForward& forward) override {
    if (id == IKvox::ParameterId::TEST_MODE) burn_.store(true, std::memory_order_relaxed);
    return PassthruProcessor::SetParameter(id, element, value, forward);
  }

  BlockResult ProcessBlock(const Block& block, OutputArea* out) override {
    const BlockResult result = PassthruProcessor::ProcessBlock(block, out);
    if (!burn_.exchange(false, std::memory_order_relaxed)) return result;
    const uint64_t until_ns = block.waiter.NowNs() + kBurnNs;
    while (block.waiter.NowNs() < until_ns) {
    }
    return result;
  }

 private:
  std::atomic<bool> burn_ = false;
};

[[maybe_unused]] const bool added = [] {
  ProcessorKinds().push_back(
      {BurningProcessor::kType, [](FourCc id, ProcessorHost&) {
         return ProcessorPtr(std::make_shared<BurningProcessor>(id, BurningProcessor::kType));
       }});
  return true;
}();

}  // namespace
}  // namespace kvox
