// The kind for the phone booth use case. Its processing is not part of this build: it can be
// created, listed and connected, and refuses to work.
#pragma once

#include "processors/kvox_processor.h"

namespace kvox {

class PhoneBoothProcessor : public KvoxProcessor {
 public:
  static constexpr FourCc kType = MakeFourCc("phbt");

  /// The reply to a client that requests the use case.
  static constexpr char kRefusal[] = "Disabled in build";

  using KvoxProcessor::KvoxProcessor;

  void Info(const std::string&, const std::string&, std::vector<std::string>&) const override {}
  int32_t Enable(bool) override { return -1; }
  /// RT: leaves the output silent.
  BlockResult ProcessBlock(const Block&, OutputArea*) override { return {.status = -1}; }
};

}  // namespace kvox
