// A service with two tap-outs and an inject, whose co-processor leaves and returns.
#pragma once

#include <string>

#include "tests/service/service_fixture.h"

namespace kvox {

class RecoveryTest : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout0", "tapout1", "inject0"});
    StartService();
    link_.taps = {{.tap = MakeFourCc("imic"),
                   .core = 2,
                   .sample_rate = 48000,
                   .channels = 2,
                   .bytes_per_sample = 2}};
  }

  void SetUpChain() {
    Call(&KvoxService::NewProcessor, Code("pass"));
    Call(&KvoxService::Connect, Code("pass"), 0, 0);
    Call(&KvoxService::ProcessorEnable, Code("pass"), true);
    Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, 0);
    Call(&KvoxService::TapSetBlockLength, 2, Code("imic"), 0, 960);
    Call(&KvoxService::TapEnable, 2, Code("imic"), 0, true);
    ASSERT_EQ(StatusOf(Call(&KvoxService::StartIo, 0)), 0);
  }

  std::string Graph() { return ProcessorRows(); }
  std::string Buffers() { return BufferRows(); }

  const std::string whole_chain_ = "\n  pass      pass      tapout0   inject0   1";
};

}  // namespace kvox
