// kvoxctl with a daemon whose replies the test scripts: failures in mid-verb, and older releases.
#include <aidl/kvox/BnKvox.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <kvox_host/binder_host.h>

#include <algorithm>
#include <map>
#include <set>
#include <type_traits>
#include <utility>

#include "interface/service_name.h"
#include "kvox/common/command_tables.h"
#include "kvox/common/mutex.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using aidl::kvox::IKvox;
using ndk::ScopedAStatus;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

using Calls = std::vector<std::string>;

/// Gives each method the reply that the test has set, else an empty one. Any thread.
class ScriptedDaemon : public aidl::kvox::BnKvox {
 public:
#define KVOX_SCRIPTED(name, parameters, arguments)                                     \
  ScopedAStatus name parameters override {                                             \
    const auto reply = [this](auto... argument) { return Reply(#name, argument...); }; \
    return reply arguments;                                                            \
  }
  KVOX_METHODS(KVOX_SCRIPTED)
#undef KVOX_SCRIPTED

  void Set(const std::string& method, const CommandResult& result) {
    const MutexLock lock(mutex_);
    replies_[method] = result;
  }
  void Refuse(const std::string& method, const std::string& line = "refused") {
    Set(method, {.status = CommandStatus::ERROR, .lines = {"request", line}});
  }
  /// The method's calls end as if the daemon were gone.
  void Break(const std::string& method) {
    const MutexLock lock(mutex_);
    broken_.insert(method);
  }

  /// The methods called since the last look.
  Calls TakeCalls() {
    const MutexLock lock(mutex_);
    return std::exchange(calls_, {});
  }

 private:
  template <typename... T>
  ScopedAStatus Reply(const char* name, const T&... arguments) {
    const MutexLock lock(mutex_);
    calls_.emplace_back(name);
    if (broken_.contains(name)) return ScopedAStatus::fromStatus(STATUS_DEAD_OBJECT);
    const CommandResult reply = replies_[name];
    [[maybe_unused]] const auto fill = [&](const auto& argument) {
      if constexpr (std::is_same_v<std::decay_t<decltype(argument)>, CommandResult*>) {
        *argument = reply;
      }
    };
    (fill(arguments), ...);
    return ScopedAStatus::ok();
  }

  Mutex mutex_;
  std::map<std::string, CommandResult> replies_ GUARDED_BY(mutex_);
  std::set<std::string> broken_ GUARDED_BY(mutex_);
  Calls calls_ GUARDED_BY(mutex_);
};

class ScriptedDaemonTest : public SystemTest {
 protected:
  ScriptedDaemonTest() {
    EXPECT_EQ(AServiceManager_addService(scripted_->asBinder().get(), KvoxDescriptor()), EX_NONE);
    ABinderProcess_startThreadPool();
    scripted_->Set("ListTapOutBuffers", {.lines = {kTapOutTableTitle, TapOuts(true)}});
  }
  ~ScriptedDaemonTest() override { kvox_host::StopBinder(); }

  static std::string TapOuts(bool enabled) {
    return std::string(kTapOutTableHeader) + "\n  0         tapout0   -         -         " +
           (enabled ? "1" : "0");
  }

  int HealthChecks(const std::string& line) {
    scripted_->TakeCalls();
    EXPECT_EQ(Run(Words(line)).exit_status, 0) << line;
    const Calls calls = scripted_->TakeCalls();
    return static_cast<int>(std::ranges::count(calls, "Debug"));
  }

  const std::shared_ptr<ScriptedDaemon> scripted_ = ndk::SharedRefBase::make<ScriptedDaemon>();
};

TEST_F(ScriptedDaemonTest, AGraphThatIsRefusedIsAskedForNoMoreThanHelps) {
  scripted_->Refuse("ShowGraph", "no reply from core 3");
  ExpectRefusal("graph", 1, "no reply from core 3");
  EXPECT_THAT(scripted_->TakeCalls(), ElementsAre("ShowGraph", "Debug")) << "a mute co-processor";

  scripted_->Set("Debug", {.lines = {kHealthNoCore + std::to_string(3)}});
  scripted_->Refuse("TapList", "something else");
  ExpectRefusal("graph", 1, "no reply from core 3");

  scripted_->TakeCalls();
  scripted_->Break("ShowGraph");
  ExpectRefusal("graph", 3, "ShowGraph was not answered");
  EXPECT_THAT(scripted_->TakeCalls(), ElementsAre("ShowGraph")) << "a dead daemon";
}

TEST_F(ScriptedDaemonTest, HealthIsAskedForOnceASampleAndOnlyWhereItMatters) {
  const std::string polls = "top --batch -n 3 --interval 0.1";
  EXPECT_EQ(HealthChecks(polls), 3);
  for (int core : kGraphCores) {
    scripted_->Set("TapList",
                   {.lines = {"KVO tap list core:" + std::to_string(core), kTapListFailed}});
  }
  EXPECT_EQ(HealthChecks("watch --timeout 0.05"), 1) << "buffers and cores in one";
  scripted_->Set("Debug", {.status = IKvox::CommandStatus::INVALID_PARAMETER, .lines = {}});
  EXPECT_EQ(HealthChecks(polls), 1) << "an older daemon logs an error each time";
  scripted_->Set("Debug", {.lines = {}});
  scripted_->Set("ListTapOutBuffers", {.lines = {kTapOutTableTitle, TapOuts(false)}});
  EXPECT_EQ(HealthChecks(polls), 0);
  EXPECT_EQ(HealthChecks("buffer list"), 0);
}

TEST_F(ScriptedDaemonTest, ARefusedUseCaseIsReportedWhateverFailsAfterwards) {
  scripted_->Set("ListSupportedUseCases", {.lines = {"Supported use cases: MIC_IN "}});
  scripted_->Refuse("Enable", "the microphone is broken");
  scripted_->Refuse("TapList", "gone by now");
  ExpectRefusal("usecase enable MIC_IN", 1, "the microphone is broken");
  scripted_->Break("ListTapOutBuffers");
  ExpectRefusal("usecase enable MIC_IN", 1, "the microphone is broken");
}

}  // namespace
}  // namespace kvox
