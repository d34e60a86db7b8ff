// Requests and replies of IKvox, byte for byte.
#include <aidl/kvox/BnKvox.h>
#include <aidl/kvox/BpKvox.h>
#include <gtest/gtest.h>

#include <tuple>
#include <type_traits>

#include "interface/service_name.h"
#include "tests/platform/parcel_bytes.h"

namespace aidl::kvox {
namespace {

using ::kvox::binder::Hex;
using ::kvox::binder::Normal;
using ::kvox::binder::Received;
using ::ndk::ScopedAStatus;
using std::string;

const string kToken = "0a000000 6b007600 6f007800 2e004900 4b007600 6f007800 00000000 ";
constexpr int32_t kArt0 = 0x61727430;

/// An object that records the bytes of calls.
class Wire {
 public:
  Wire()
      : binder_(AIBinder_new(Class(), this)), proxy_(ndk::SharedRefBase::make<BpKvox>(binder_)) {}

  IKvox* operator->() { return proxy_.get(); }
  string request() const { return request_; }
  void Answer(string reply) { reply_ = std::move(reply); }

 private:
  static const AIBinder_Class* Class() {
    static const auto* const clazz = AIBinder_Class_define(
        IKvox::descriptor, [](void* wire) { return wire; }, [](void*) {}, OnTransact);
    return clazz;
  }
  static binder_status_t OnTransact(AIBinder* binder, transaction_code_t code, const AParcel* in,
                                    AParcel* out) {
    auto* wire = static_cast<Wire*>(AIBinder_getUserData(binder));
    wire->request_ = std::to_string(code) + ": " + Hex(*in);
    ::kvox::binder::Append(*out, wire->reply_);
    return STATUS_OK;
  }

  ndk::SpAIBinder binder_;
  std::shared_ptr<BpKvox> proxy_;
  string request_;
  string reply_ = "00000000 01000000 10000000 00000000 00000000 00000000";
};

string Request(int code, const string& arguments) {
  return std::to_string(code) + ": " + Normal(kToken + arguments);
}

TEST(Requests, HoldTheTokenAndTheInArguments) {
  using Pair = IKvox::ParamIdElementPair;
  using Id = IKvox::ParameterId;
  Wire wire;
  IKvox::CommandResult result;
  IKvox::ParamValue value;
  EXPECT_TRUE(wire->Ping().isOk());
  EXPECT_EQ(wire.request(), Request(1, ""));
  EXPECT_TRUE(wire->ProcessorIsEnabled(kArt0, &result).isOk());
  EXPECT_EQ(wire.request(), Request(13, "30747261"));
  EXPECT_TRUE(wire->EnableUseCase(IKvox::UseCase::UNSPECIFIED, true, &result).isOk());
  EXPECT_EQ(wire.request(), Request(25, "ffffffff 01000000"));
  EXPECT_TRUE(wire->SetParameter(1, Id::BLOCK_LENGTH, 0, 960, &result).isOk());
  EXPECT_EQ(wire.request(), Request(27, "01000000 03000000 00000000 | 01000000 00000000 c0030000"));
  value.set<IKvox::ParamValue::v>(std::vector<float>{1.0f, 2.0f});
  EXPECT_TRUE(wire->SetParameter(1, Id::BLOCK_LENGTH, 0, value, &result).isOk());
  EXPECT_EQ(wire.request(), Request(27,
                                    "01000000 03000000 00000000 | 01000000 02000000 02000000 "
                                    "0000803f 00000040"));
  IKvox::AudioPacket packet;
  packet.processor_id = 5;
  packet.data = {1, 2, 3, 4, 5};
  packet.sampleRate = 5;
  packet.bitsPerSample = 1;
  packet.numChannels = 2;
  EXPECT_TRUE(wire->SendAudio(5, packet, &result).isOk());
  EXPECT_EQ(wire.request(), Request(32,
                                    "05000000 | 01000000 24000000 05000000 05000000 01020304 "
                                    "05000000 05000000 00000000 01000000 02000000"));
  std::vector<IKvox::ParamValue> values;
  wire.Answer(
      "00000000 02000000  01000000 00000000 03000000  01000000 00000000 00000000"
      "01000000 18000000 00000000 00000000 01000000 01000000 6e000000");
  EXPECT_TRUE(
      wire->GetParameterBulk(1, {Pair{Id::BLOCK_LENGTH, 0}, Pair{Id::VERSION, 1}}, &result, &values)
          .isOk());
  EXPECT_EQ(wire.request(), Request(30,
                                    "01000000 02000000 | 01000000 0c000000 03000000 00000000 | "
                                    "01000000 0c000000 00000000 01000000"));
  EXPECT_EQ(values, (std::vector<IKvox::ParamValue>{3, 0}));
  EXPECT_EQ(result.lines, std::vector<string>{"n"});
}

TEST(Requests, ForVersionAndHashAreMadeOnce) {
  Wire wire;
  int32_t version = 0;
  string hash;
  wire.Answer("00000000 03000000");
  EXPECT_TRUE(wire->getInterfaceVersion(&version).isOk());
  wire.Answer("00000000 02000000 61006200 00000000");
  EXPECT_TRUE(wire->getInterfaceHash(&hash).isOk());
  wire.Answer("");
  EXPECT_TRUE(wire->getInterfaceVersion(&version).isOk());
  EXPECT_TRUE(wire->getInterfaceHash(&hash).isOk());
  EXPECT_EQ(version, 3);
  EXPECT_EQ(hash, "ab");
}

/// Returns the same values for every command.
class ScriptedService : public BnKvox {
 public:
#define KVOX_SCRIPTED(name, parameters, arguments)                           \
  ScopedAStatus name parameters override {                                   \
    ++calls;                                                                 \
    const auto fill = [this](auto&&... argument) { (Fill(argument), ...); }; \
    fill arguments;                                                          \
    return ScopedAStatus::ok();                                              \
  }
  KVOX_METHODS(KVOX_SCRIPTED)
#undef KVOX_SCRIPTED

  template <typename T>
  T& next() {
    return std::get<T>(answers_);
  }
  int calls = 0;

 private:
  template <typename T>
  void Fill(const T& argument) {
    if constexpr (std::is_pointer_v<T>) *argument = next<std::remove_pointer_t<T>>();
  }

  std::tuple<CommandResult, ParamValue, std::vector<ParamValue>, ProcessorStats> answers_;
};

/// The bytes of a service's reply to the arguments in `hex`, or its failure.
string Reply(const std::shared_ptr<ndk::ICInterface>& service, transaction_code_t code,
             const string& hex = "") {
  const ndk::SpAIBinder binder = service->asBinder();
  AParcel* in = nullptr;
  EXPECT_EQ(AIBinder_prepareTransaction(binder.get(), &in), STATUS_OK);
  ::kvox::binder::Append(*in, hex);
  ndk::ScopedAParcel out;
  const binder_status_t status = AIBinder_transact(binder.get(), code, &in, out.getR(), 0);
  return status == STATUS_OK ? Hex(*out.get()) : "failed " + std::to_string(status);
}

TEST(Replies, HoldTheStatusTheResultAndTheOutArguments) {
  const auto service = ndk::SharedRefBase::make<ScriptedService>();
  auto& result = service->next<IKvox::CommandResult>();
  result.status = IKvox::CommandStatus::INVALID_PROCESSOR;
  result.value = 1.0f;
  result.lines = {"a", "h\xc3\xa9"};
  EXPECT_EQ(Reply(service, 1), "00000000");
  EXPECT_EQ(Reply(service, IKvox::TRANSACTION_ProcessorIsEnabled, "30747261"),
            Normal("00000000 01000000 24000000 02000000 0000803f 02000000"
                   "01000000 61000000  02000000 6800e900 00000000"));
  result = {};
  service->next<IKvox::ParamValue>() = 4800;
  EXPECT_EQ(Reply(service, IKvox::TRANSACTION_GetParameter, "01000000 03000000 00000000"),
            Normal("00000000 | 01000000 10000000 00000000 00000000 00000000 | 01000000 00000000 "
                   "c0120000"));
  auto& stats = service->next<IKvox::ProcessorStats>();
  stats.blockCount = 7;
  stats.bufferEntries = 3;
  stats.averagePeriod = 10.5f;
  stats.measurements = {1, 2, 3};
  EXPECT_EQ(Reply(service, IKvox::TRANSACTION_ProcessorGetStats, "01000000"),
            Normal("00000000 | 01000000 10000000 00000000 00000000 00000000 | 01000000 20000000 "
                   "07000000 03000000 00002841 03000000 0000803f 00000040 00004040"));
  EXPECT_EQ(Reply(service, 0x00ffffff), Normal("00000000 03000000"));
  EXPECT_EQ(Reply(service, 40), "failed -74");
}

TEST(Replies, OfAServiceThatRefuses) {
  class Refusing : public IKvox::BnReceiveAudioCallback {
    ScopedAStatus ReceiveAudio(const IKvox::AudioPacket&) override {
      return ScopedAStatus::fromExceptionCode(EX_ILLEGAL_STATE);
    }
  };
  const auto callback = ndk::SharedRefBase::make<Refusing>();
  EXPECT_EQ(
      Reply(callback, 1, "01000000 1c000000 05000000 00000000 00000000 00000000 00000000 00000000"),
      Normal("fbffffff 00000000 00000000 00000000"));
  // A string that cannot be written fails the whole reply.
  const auto service = ndk::SharedRefBase::make<ScriptedService>();
  service->next<IKvox::CommandResult>().lines = {"cut \xc3"};
  EXPECT_EQ(Reply(service, IKvox::TRANSACTION_ShowGraph), "failed -22");
}

TEST(Replies, ToHostileArgumentsAreFailures) {
  const auto service = ndk::SharedRefBase::make<ScriptedService>();
  const struct {
    transaction_code_t code;
    const char* arguments;
    binder_status_t status;
  } rows[] = {
      {IKvox::TRANSACTION_TapInfo, "01000000 02000000", STATUS_NOT_ENOUGH_DATA},
      {IKvox::TRANSACTION_Enable, "ffffffff 01000000", STATUS_UNEXPECTED_NULL},
      {IKvox::TRANSACTION_Debug, "ffffffff", STATUS_NO_MEMORY},
      {IKvox::TRANSACTION_SendAudio, "05000000 00000000", STATUS_UNEXPECTED_NULL},
      {IKvox::TRANSACTION_SendAudio, "05000000 01000000 03000000", STATUS_BAD_VALUE},
      {IKvox::TRANSACTION_SendAudio, "05000000 01000000 ffffff7f", STATUS_BAD_VALUE},
      {IKvox::TRANSACTION_SendAudio, "05000000 01000000 24000000 05000000 feffffff",
       STATUS_BAD_VALUE},
      {IKvox::TRANSACTION_SetParameter, "01000000 00000000 00000000 01000000 03000000 00000000",
       STATUS_BAD_VALUE},
      {IKvox::TRANSACTION_SetParameter, "01000000 00000000 00000000 01000000 ffffffff 00000000",
       STATUS_BAD_VALUE},
      {IKvox::TRANSACTION_GetParameterBulk, "01000000 ffffff7f", STATUS_NO_MEMORY},
      {IKvox::TRANSACTION_RegisterReceiveAudioCallback,
       "01000000 01000000 00000000 00000000 0c000000", STATUS_BAD_TYPE},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Reply(service, row.code, row.arguments), "failed " + std::to_string(row.status))
        << row.arguments;
  }
  EXPECT_EQ(service->calls, 0) << "the method is not reached";
  Reply(service, IKvox::TRANSACTION_RegisterReceiveAudioCallback, "01000000 00000000 00000000");
  EXPECT_EQ(service->calls, 1) << "a null callback is let through";
}

TEST(Parcelables, OfOlderAndNewerSendersAreRead) {
  IKvox::ParamIdElementPair pair;
  pair.element = 9;
  const AParcel older = Received("08000000 03000000 77777777");
  ASSERT_EQ(pair.readFromParcel(&older), STATUS_OK);
  EXPECT_EQ(pair.id, IKvox::ParameterId::BLOCK_LENGTH);
  EXPECT_EQ(pair.element, 9) << "kept";
  EXPECT_EQ(older.position(), 8u);
  const AParcel newer = Received("14000000 03000000 05000000 66666666 66666666 77777777");
  ASSERT_EQ(pair.readFromParcel(&newer), STATUS_OK);
  EXPECT_EQ(pair.element, 5);
  EXPECT_EQ(newer.position(), 20u);
}

TEST(Values, ComparePrintAndAreNamed) {
  const auto value = IKvox::ParamValue::make<IKvox::ParamValue::f>(0.5f);
  EXPECT_LT(IKvox::ParamValue(7), value);
  EXPECT_THROW(value.get<IKvox::ParamValue::i>(), std::bad_variant_access);
  EXPECT_EQ(value.toString(), "ParamValue{f: 0.500000}");
  IKvox::CommandResult result;
  result.lines = {"a", "b"};
  EXPECT_EQ(result.toString(), "CommandResult{status: OK, value: 0.000000, lines: [a, b]}");
  EXPECT_EQ(::kvox::KvoxDescriptor(), string(IKvox::descriptor) + "/default");
}

}  // namespace
}  // namespace aidl::kvox
