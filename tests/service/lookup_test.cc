// Look-ups while the co-processor does not reply.
#include <atomic>
#include <future>
#include <latch>
#include <thread>

#include "tests/service/service_fixture.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

using ::testing::HasSubstr;

class LookUpTest : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout0", "inject0"});
    link_.taps = {{.tap = MakeFourCc("imic"),
                   .core = 2,
                   .sample_rate = 48000,
                   .channels = 1,
                   .bytes_per_sample = 2}};
    StartService();
    Call(&KvoxService::NewProcessorWithType, Code("art0"), Code("arel"));
    Call(&KvoxService::Connect, Code("art0"), 0, 0);
    Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, 0);
  }

  void LookUpEverything() {
    EXPECT_TRUE(service_->Ping().isOk());
    Call(&KvoxService::SendAudio, Code("art0"), IKvox::AudioPacket());
    Call(&KvoxService::ProcessorIsEnabled, Code("art0"));
    EXPECT_THAT(ProcessorRows(), HasSubstr("art0"));
    EXPECT_THAT(BufferRows(), HasSubstr("tapout0"));
    IKvox::ProcessorStats stats;
    CommandResult result;
    EXPECT_TRUE(service_->ProcessorGetStats(Code("art0"), &stats, &result).isOk());
    Call(&KvoxService::RegisterReceiveAudioCallback, Code("art0"), nullptr);
  }
};

TEST_F(LookUpTest, WaitsForNoExchange) {
  const struct {
    const char* name;
    std::function<void()> command;
  } rows[] = {
      {"TapEnable", [this] { Call(&KvoxService::TapEnable, 2, Code("imic"), 0, true); }},
      {"ConnectTap", [this] { Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, 0); }},
      {"TapList", [this] { Call(&KvoxService::TapList, 2); }},
      {"ShowGraph", [this] { Call(&KvoxService::ShowGraph); }},
      {"BLOCK_LENGTH",
       [this] {
         Call(&KvoxService::SetParameter, Code("art0"), IKvox::ParameterId::BLOCK_LENGTH, 0,
              IKvox::ParamValue::make<IKvox::ParamValue::i>(960));
       }},
      {"recovery", [this] { Restart(); }},
  };
  for (const auto& row : rows) {
    std::latch exchange(1);
    std::latch reply(1);
    link_.on_send = [&] {
      exchange.count_down();
      reply.wait();
    };
    std::thread client(row.command);
    EXPECT_TRUE(WaitFor([&] { return exchange.try_wait(); })) << row.name;
    auto looked = std::async(std::launch::async, [this] { LookUpEverything(); });
    EXPECT_EQ(looked.wait_for(std::chrono::seconds(2)), std::future_status::ready) << row.name;
    reply.count_down();
    client.join();
  }
}

TEST_F(LookUpTest, ADepartureIsSeenAtOnce) {
  std::latch exchange(1);
  std::latch reply(1);
  link_.on_send = [&] {
    exchange.count_down();
    reply.wait();
  };
  std::thread client([this] { Call(&KvoxService::TapEnable, 2, Code("imic"), 0, true); });
  EXPECT_TRUE(WaitFor([&] { return exchange.try_wait(); }));
  auto gone = std::async(std::launch::async, [this] {
    Leave("tapout0");
    return Call(&KvoxService::ListTapOutBuffers).lines.back();
  });
  EXPECT_EQ(gone.wait_for(std::chrono::seconds(2)), std::future_status::ready);
  reply.count_down();
  EXPECT_EQ(gone.get(), "  none\n");
  client.join();
}

TEST_F(LookUpTest, AProcessorThatIsReplacedIsThereAllTheTime) {
  std::atomic<bool> done = false;
  auto missed = std::async(std::launch::async, [&] {
    int count = 0;
    while (!done) count += StatusOf(Call(&KvoxService::ProcessorIsEnabled, Code("art0"))) != 0;
    return count;
  });
  for (int i = 0; i < 500; ++i) {
    Call(&KvoxService::NewProcessorWithType, Code("art0"),
         i % 2 == 0 ? Code("pass") : Code("arel"));
  }
  done = true;
  EXPECT_EQ(missed.get(), 0);
}

}  // namespace
}  // namespace kvox
