#include <aidl/kvox/BnKvox.h>

#include <latch>
#include <optional>
#include <thread>

#include "processors/audio_relay_processor.h"
#include "service/use_case_steps.h"
#include "tests/service/service_fixture.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using UseCase = IKvox::UseCase;

class UseCaseCommands : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout20", "tapout21", "tapout40", "tapout41", "inject20", "inject21", "inject40",
               "inject41"});
    link_.taps = UseCaseTaps();
    StartService();
  }

  float IsOn(UseCase use_case) { return Call(&KvoxService::IsUseCaseEnabled, use_case).value; }
};

TEST_F(UseCaseCommands, EveryStepsUseCaseComesAndGoes) {
  const struct {
    UseCase use_case;
    std::vector<const char*> rows;
  } rows[] = {
      {UseCase::MIC_IN, {"pas1      pass      tapout20  inject20  1"}},
      {UseCase::SPEAKER_OUT, {"pas2      pass      tapout21  inject21  1"}},
      {UseCase::AREL_TELE,
       {"art0      arel      tapout40  inject40  1", "art1      arel      tapout41  inject41  1"}},
      {UseCase::AREL_MEDIA_PLAYBACK, {"armd      arel      tapout20  inject20  1"}},
  };
  for (const auto& row : rows) {
    const std::string name = toString(row.use_case);
    EXPECT_THAT(Call(&KvoxService::EnableUseCase, row.use_case, true).lines,
                ElementsAre("Enable use case " + name));
    EXPECT_EQ(log_.Count("Enable use case " + name + " done"), 1u);
    for (const char* processor : row.rows) EXPECT_THAT(ProcessorRows(), HasSubstr(processor));
    EXPECT_TRUE(link_.wake_lock);
    const CommandResult off = Call(&KvoxService::EnableUseCase, row.use_case, false);
    EXPECT_THAT(off.lines, ElementsAre("Disable use case " + name));
    EXPECT_EQ(ProcessorRows(), "Kvox processors:   none");
    EXPECT_FALSE(link_.wake_lock);
  }
  // Microphone and speaker stay bound to their buffers, the relays' tap points do not.
  link_.opcodes.clear();
  Restart();
  EXPECT_EQ(log_.Count("Restore tap point state"), 2u);
}

TEST_F(UseCaseCommands, NamesAndRefusalsReadAsClientsKnowThem) {
  EXPECT_THAT(Call(&KvoxService::ListSupportedUseCases).lines,
              ElementsAre("Supported Kvox use cases: HOTWORDAEC MIC_IN SPEAKER_OUT AREL_TELE "
                          "PHONEBOOTH AREL_MEDIA_PLAYBACK "));
  const struct {
    CommandResult result;
    int status;
    Lines lines;
  } rows[] = {
      {Call(&KvoxService::EnableUseCase, UseCase{6}, true),
       3,
       {"Enable use case 6", "Enable use case 6", "EnableUseCase: INVALID PARAMETER"}},
      {Call(&KvoxService::EnableUseCase, UseCase::PHONEBOOTH, true),
       1,
       {"Enable use case PHONEBOOTH",
        "Enable use case PHONEBOOTH encountered an error: Disabled in build",
        "EnableUseCase: ERROR"}},
      {Call(&KvoxService::Enable, "hotwordaec", true),
       1,
       {"Enable 'hotwordaec'", "Enable use case HOTWORDAEC",
        "Enable use case HOTWORDAEC encountered an error: ProcessorEnable: INVALID PROCESSOR",
        "EnableUseCase: ERROR"}},
      {Call(&KvoxService::Enable, "radio", false),
       3,
       {"Disable 'radio'", "Disable 'radio': Unknown use case"}},
      {Call(&KvoxService::IsEnabled, "mic_in"),
       3,
       {"Get use case 'MIC_IN' enabled state", "kvox use case state unknown",
        "IsUseCaseEnabled: INVALID PARAMETER"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(StatusOf(row.result), row.status) << row.lines.back();
    EXPECT_EQ(row.result.lines, row.lines);
  }
}

TEST_F(UseCaseCommands, HotwordFollowsItsProcessor) {
  Call(&KvoxService::NewProcessorWithType, Code("hwae"), Code("pass"));
  EXPECT_EQ(StatusOf(Call(&KvoxService::EnableUseCase, UseCase::HOTWORDAEC, true)), 0);
  EXPECT_EQ(IsOn(UseCase::HOTWORDAEC), 1.0f);
  Call(&KvoxService::EnableUseCase, UseCase::HOTWORDAEC, false);
  EXPECT_EQ(IsOn(UseCase::HOTWORDAEC), 0.0f);
}

TEST_F(UseCaseCommands, AFailingStepEndsTheUseCaseWhereItIs) {
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -7;
  const CommandResult failed = Call(&KvoxService::EnableUseCase, UseCase::AREL_TELE, true);
  EXPECT_EQ(StatusOf(failed), 1);
  EXPECT_THAT(failed.lines,
              ElementsAre("Enable use case AREL_TELE",
                          "Enable use case AREL_TELE encountered an error: ConnectTap: ERROR",
                          "EnableUseCase: ERROR"));
  EXPECT_THAT(ProcessorRows(), HasSubstr("art1      arel      tapout41  inject41  1"));
  EXPECT_EQ(IsOn(UseCase::AREL_TELE), 0.0f);
  link_.failures.clear();
  EXPECT_EQ(StatusOf(Call(&KvoxService::EnableUseCase, UseCase::AREL_TELE, true)), 0);
  EXPECT_EQ(IsOn(UseCase::AREL_TELE), 1.0f);
  log_.Take();
  EXPECT_EQ(StatusOf(Call(&KvoxService::EnableUseCase, UseCase::AREL_TELE, true)), 0);
  EXPECT_EQ(log_.Count("Already enabled"), 1u);
  // Off only when every step that counts succeeded.
  link_.failures[CMD_KVOX_TAP_ENABLE_ID] = -7;
  EXPECT_EQ(StatusOf(Call(&KvoxService::EnableUseCase, UseCase::AREL_TELE, false)), 1);
  EXPECT_EQ(IsOn(UseCase::AREL_TELE), 1.0f);
}

TEST_F(UseCaseCommands, OneThatIsHalfOnIsSwitchedOffWhole) {
  for (const UseCase use_case : {UseCase::AREL_TELE, UseCase::MIC_IN}) {
    link_.failures[CMD_KVOX_TAP_ENABLE_ID] = -7;
    EXPECT_EQ(StatusOf(Call(&KvoxService::EnableUseCase, use_case, true)), 1);
    EXPECT_NE(ProcessorRows(), "Kvox processors:   none");
    Call(&KvoxService::EnableUseCase, use_case, false);
    EXPECT_EQ(ProcessorRows(), "Kvox processors:   none") << toString(use_case);
    link_.failures.clear();
    EXPECT_EQ(StatusOf(Call(&KvoxService::EnableUseCase, use_case, true)), 0);
    EXPECT_TRUE(link_.wake_lock);
    Call(&KvoxService::EnableUseCase, use_case, false);
    EXPECT_FALSE(link_.wake_lock);
  }
}

TEST_F(UseCaseCommands, OneThatIsNotOnIsRefusedEachTime) {
  for (const UseCase use_case : {UseCase::MIC_IN, UseCase::HOTWORDAEC}) {
    EXPECT_EQ(StatusOf(Call(&KvoxService::EnableUseCase, UseCase::HOTWORDAEC, true)), 1);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(StatusOf(Call(&KvoxService::EnableUseCase, use_case, false)), 1) << i;
    }
  }
}

TEST_F(UseCaseCommands, TwoClientsCannotTearAUseCase) {
  for (const auto use_case : {UseCase::AREL_TELE, UseCase::AREL_MEDIA_PLAYBACK}) {
    const auto toggle = [&](bool first) {
      for (int i = 0; i < 30; ++i) {
        Call(&KvoxService::EnableUseCase, use_case, first == (i % 2 == 0));
      }
    };
    std::thread other(toggle, false);
    toggle(true);
    other.join();
    const bool on = ProcessorRows() != "Kvox processors:   none";
    EXPECT_EQ(link_.wake_lock, on);
    EXPECT_EQ(IsOn(UseCase::AREL_TELE) == 1.0f, on && use_case == UseCase::AREL_TELE);
    Call(&KvoxService::EnableUseCase, use_case, false);
  }
}

/// Use cases that run the service's commands, with relays whose clients die when a test says so.
class ClientDeath : public UseCaseCommands, public ProcessorHost {
 protected:
  void SetUp() override {
    UseCaseCommands::SetUp();
    use_cases_.emplace(*service_, relays_, taps_);
  }

  std::shared_ptr<KvoxProcessor> Relay(FourCc id) {
    std::shared_ptr<KvoxProcessor> relay = AudioRelayProcessor::Create(id, *this);
    bool stored = false;
    relays_.ReplaceProcessor(id, relay, stored);
    return relay;
  }
  void SwitchOn(UseCase use_case) {
    CommandResult result;
    use_cases_->Switch(use_case, true, &result);
    EXPECT_EQ(StatusOf(result), 0);
  }
  bool Shows(const char* processor) { return ProcessorRows().find(processor) != std::string::npos; }

 private:
  void BlockStateChanged(const KvoxProcessor&) override {}
  void EndUseCaseOf(std::shared_ptr<const KvoxProcessor>) override {}
  ThreadGroup& client_threads() override { return threads_; }
  ByteBudget& sent_audio_budget() override { return budget_; }

  ThreadGroup threads_{0};
  ByteBudget budget_{0};
  Inventory relays_;

 protected:
  SavedState saved_;

 private:
  Wiring wiring_{relays_, saved_};
  TapPoints taps_{link_, relays_, saved_, wiring_};

 protected:
  std::optional<UseCases> use_cases_;
};

TEST_F(ClientDeath, WaitsForItsOwnUseCaseOnlyAndKeepsNobodyWaiting) {
  SwitchOn(UseCase::AREL_MEDIA_PLAYBACK);
  std::latch opens(1);
  io_.interrupted = "inject41";
  io_.on_open = [&] { opens.wait(); };
  std::thread client([&] { SwitchOn(UseCase::AREL_TELE); });
  EXPECT_TRUE(WaitFor([&] { return log_.Count("Enable buffer tapout41") == 1; }));
  for (int i = 0; i < 3; ++i) use_cases_->EndUseCaseOf(Relay(MakeFourCc("art0")));
  use_cases_->EndUseCaseOf(Relay(MakeFourCc("armd")));
  EXPECT_TRUE(WaitFor([&] { return !Shows("armd"); }));
  EXPECT_TRUE(Shows("art0"));
  opens.count_down();
  client.join();
  EXPECT_TRUE(WaitFor([&] { return !Shows("art0") && !use_cases_->telephony_enabled(); }));
}

TEST_F(ClientDeath, LeavesNothingThatComesBackWithTheDevices) {
  SwitchOn(UseCase::AREL_TELE);
  const TapArguments tap = {4, MakeFourCc("vpdl"), 0};
  saved_.BindTap(tap, 40, 40);
  link_.failures = {{CMD_KVOX_TAP_ENABLE_ID, -1}, {CMD_KVOX_TAP_BIND_ID, -1}};
  use_cases_->EndUseCaseOf(Relay(MakeFourCc("art0")));
  EXPECT_TRUE(WaitFor([&] { return !use_cases_->telephony_enabled(); }));
  EXPECT_FALSE(saved_.FindTap(TapKey(tap.Address())));
  EXPECT_FALSE(Shows("art0") || Shows("art1"));
  EXPECT_THAT(BufferRows(), ::testing::Not(HasSubstr("-         1")));
}

class NextClient : public IKvox::BnReceiveAudioCallback {
  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket&) override {
    return ndk::ScopedAStatus::ok();
  }
};

TEST_F(ClientDeath, EndsNothingThatAnotherRelayOrClientHasTakenOver) {
  SwitchOn(UseCase::AREL_TELE);
  const auto replaced = Relay(MakeFourCc("art0"));
  const auto present = Relay(MakeFourCc("art0"));
  use_cases_->EndUseCaseOf(replaced);
  present->RegisterReceiveAudioCallback(ndk::SharedRefBase::make<NextClient>());
  use_cases_->EndUseCaseOf(present);
  use_cases_->EndUseCaseOf(AudioRelayProcessor::Create(MakeFourCc("xxxx"), *this));
  EXPECT_TRUE(WaitFor([&] { return log_.Count("onCallbackDeath: Failed to disable xxxx") == 1; }));
  use_cases_.reset();  // waits for its threads
  EXPECT_TRUE(Shows("art0"));
}

TEST_F(UseCaseCommands, GainsAreUnavailableWhereTheyExistAtAll) {
  EXPECT_THAT(Call(&KvoxService::TapSetGain, 2, Code("imic"), 0, 0.5f, 10).lines,
              ElementsAre("Tap point [core 2 tap imic.0] set gain 0.500000, ramp_ms 10",
                          "Unavailable", "TapSetGain: ERROR"));
  const CommandResult playback = Call(&KvoxService::UseCaseSetGain, "AREL_MEDIA_PLAYBACK", 1.0f, 7);
  EXPECT_EQ(StatusOf(playback), 1);
  EXPECT_THAT(playback.lines,
              ElementsAre("Use case AREL_MEDIA_PLAYBACK set gain 1.000000, ramp_ms 7",
                          "Tap point [core 2 tap entr.5] set gain 1.000000, ramp_ms 7",
                          "Unavailable", "TapSetGain: ERROR"));
  EXPECT_EQ(Call(&KvoxService::UseCaseSetGain, "PhoneBooth", 1.0f, 7).lines.back(),
            "Disabled in build");
  for (const char* name : {"AREL_TELE", "radio"}) {
    EXPECT_EQ(StatusOf(Call(&KvoxService::UseCaseSetGain, name, 1.0f, 7)), 3) << name;
  }
}

}  // namespace
}  // namespace kvox
