// The kind behind the phone booth use case. Its processing is not part of this build: it can be
// made, listed and tied, and refuses to work.
#pragma once

#include "processors/kvox_processor.h"

namespace kvox {

class PhoneBoothProcessor : public KvoxProcessor {
 public:
  static constexpr FourCc kType = MakeFourCc("phbt");

  using KvoxProcessor::KvoxProcessor;

  /// Refuses, whatever is asked for.
  static void EnableUseCase(bool, IKvox::CommandResult* result) {
    result->lines.push_back("Disabled in build");
    result->status = IKvox::CommandStatus::ERROR;
  }

  void Info(std::vector<std::string>&) const override {}
  int32_t Enable(bool) override { return -1; }
  /// RT: leaves the output silent.
  int32_t ProcessBlock(const void*, size_t, void*, size_t) override { return -1; }
};

}  // namespace kvox
