// Every method of IKvox through a socket: what goes in arrives, what comes out returns.
#include <aidl/kvox/BnKvox.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <gtest/gtest.h>
#include <kvox_host/binder_host.h>
#include <stdlib.h>

#include "interface/service_name.h"
#include "platform/linux/runtime_directory.h"
#include "platform/linux/service_connector.h"
#include "tests/support/temp_directory.h"

namespace aidl::kvox {
namespace {

using ::ndk::ScopedAStatus;
using Callback = IKvox::IReceiveAudioCallback;

// A value of any type of the interface, another one for each seed.

template <typename T>
requires(std::is_arithmetic_v<T> || std::is_enum_v<T>) void Make(int seed, T* value) {
  *value = static_cast<T>(-3 * seed);
}
void Make(int seed, bool* value) {
  *value = seed % 2 == 0;
}
void Make(int seed, std::string* value) {
  *value = "caf\xc3\xa9 " + std::to_string(seed);
}
void Make(int seed, IKvox::ParamValue* value) {
  if (seed % 3 == 0) value->set<IKvox::ParamValue::i>(seed);
  if (seed % 3 == 1) value->set<IKvox::ParamValue::f>(0.5f * static_cast<float>(seed));
  if (seed % 3 == 2) value->set<IKvox::ParamValue::v>(2u, static_cast<float>(seed));
}
template <typename T>
requires requires(T value) {
  value._fields();
}
void Make(int seed, T* value);
template <typename T>
void Make(int seed, std::vector<T>* value) {
  value->resize(3);
  for (T& element : *value) Make(seed++, &element);
}
template <typename T>
requires requires(T value) {
  value._fields();
}
void Make(int seed, T* value) {
  std::apply([&](auto&... field) { (Make(seed++, &field), ...); }, value->_fields());
}

/// Notes what it gets.
class RecordingCallback : public IKvox::BnReceiveAudioCallback {
 public:
  ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override {
    received = packet;
    return ScopedAStatus::ok();
  }
  IKvox::AudioPacket received;
};
void Make(int, std::shared_ptr<Callback>* value) {
  *value = ndk::SharedRefBase::make<RecordingCallback>();
}

constexpr int kOutSeed = 100;

/// Notes the text of each call's arguments and fills its out arguments from seeds.
class RecordingService : public BnKvox {
 public:
#define KVOX_RECORD(name, parameters, arguments)                                  \
  ScopedAStatus name parameters override {                                        \
    int seed = kOutSeed;                                                          \
    record = #name;                                                               \
    const auto note = [&](auto&&... argument) { (Note(argument, seed++), ...); }; \
    note arguments;                                                               \
    static_cast<void>(seed);                                                      \
    return ScopedAStatus::ok();                                                   \
  }
  KVOX_METHODS(KVOX_RECORD)
#undef KVOX_RECORD

  std::string record;

 private:
  template <typename T>
  void Note(const T& argument, int seed) {
    if constexpr (std::is_pointer_v<T>) {
      Make(seed, argument);
    } else if constexpr (std::is_same_v<T, std::shared_ptr<Callback>>) {
      IKvox::AudioPacket packet;
      Make(seed, &packet);
      record += argument->isRemote() && argument->ReceiveAudio(packet).isOk() ? " callback" : " ?";
    } else {
      record += " " + ::android::internal::ToString(argument);
    }
  }
};

template <auto method>
struct RoundTrip;
template <typename... Args, ScopedAStatus (IKvox::*method)(Args...)>
struct RoundTrip<method> {
  template <typename Arg>
  using Value = std::remove_cvref_t<std::remove_pointer_t<Arg>>;

  static void Run(IKvox& client, const RecordingService& service, const char* name) {
    std::tuple<Value<Args>...> values{};
    std::string expected = name;
    int seed = 1;
    std::apply([&](auto&... value) { (Prepare<Args>(&value, seed++, &expected), ...); }, values);
    const auto call = [&](auto&... value) { return (client.*method)(Pass<Args>(value)...); };
    const ScopedAStatus status = std::apply(call, values);
    ASSERT_TRUE(status.isOk()) << name << ": " << status;
    EXPECT_EQ(service.record, expected);
    seed = kOutSeed;
    std::apply([&](auto&... value) { (Check<Args>(value, seed++, name), ...); }, values);
  }

 private:
  template <typename Arg>
  static void Prepare(Value<Arg>* value, int seed, std::string* expected) {
    if constexpr (std::is_same_v<Value<Arg>, std::shared_ptr<Callback>>) {
      Make(seed, value);
      *expected += " callback";
    } else if constexpr (!std::is_pointer_v<Arg>) {
      Make(seed, value);
      *expected += " " + ::android::internal::ToString(*value);
    }
  }
  template <typename Arg>
  static decltype(auto) Pass(Value<Arg>& value) {
    if constexpr (std::is_pointer_v<Arg>) {
      return &value;
    } else {
      return (value);
    }
  }
  template <typename Arg>
  static void Check(const Value<Arg>& value, int seed, const char* name) {
    if constexpr (std::is_pointer_v<Arg>) {
      Value<Arg> expected;
      Make(seed, &expected);
      EXPECT_EQ(value, expected) << name;
    } else if constexpr (std::is_same_v<Value<Arg>, std::shared_ptr<Callback>>) {
      IKvox::AudioPacket expected;
      Make(seed, &expected);
      EXPECT_EQ(static_cast<RecordingCallback&>(*value).received, expected);
    }
  }
};

class RoundTripTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KVOX_RUNTIME_DIR", directory_.path().c_str(), 1);
    service_ = ndk::SharedRefBase::make<RecordingService>();
    ASSERT_EQ(AServiceManager_addService(service_->asBinder().get(), ::kvox::KvoxDescriptor()), 0);
    ABinderProcess_setThreadPoolMaxThreadCount(2);
    ABinderProcess_startThreadPool();
    using namespace ::kvox::binder;  // a connection of its own, where the process has none
    client_ = IKvox::fromBinder(
        ConnectToService(SocketPath(directory_.path(), ::kvox::KvoxDescriptor())).root);
    ASSERT_NE(client_, nullptr);
  }
  void TearDown() override {
    client_ = nullptr;
    kvox_host::StopBinder();
  }

  const ::kvox::TempDirectory directory_;
  std::shared_ptr<RecordingService> service_;
  std::shared_ptr<IKvox> client_;
};

TEST_F(RoundTripTest, EveryMethodArrivesWholeAndAnswersWhole) {
#define KVOX_RUN(name, parameters, arguments) \
  RoundTrip<&IKvox::name>::Run(*client_, *service_, #name);
  KVOX_METHODS(KVOX_RUN)
#undef KVOX_RUN
}

TEST_F(RoundTripTest, VersionAndHashAreAskedForOnce) {
  int32_t version = 0;
  std::string hash;
  ASSERT_TRUE(client_->getInterfaceVersion(&version).isOk());
  ASSERT_TRUE(client_->getInterfaceHash(&hash).isOk());
  EXPECT_EQ(version, 3);
  EXPECT_EQ(hash, IKvox::hash);
  EXPECT_EQ(hash.size(), 40u);
  kvox_host::StopBinder();
  version = 0;
  EXPECT_TRUE(client_->getInterfaceVersion(&version).isOk());
  EXPECT_EQ(version, 3) << "no call was needed";
  EXPECT_EQ(client_->Ping().getStatus(), STATUS_DEAD_OBJECT);
}

}  // namespace
}  // namespace aidl::kvox
