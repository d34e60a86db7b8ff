// Calls of every method of the interface, valid and corrupted ones, to a service whose devices
// come, go and deliver audio at the same time.

#include <aidl/kvox/BnKvox.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <tuple>
#include <utility>

#include "fuzz/any_value.h"
#include "fuzz/check.h"
#include "fuzz/service_world.h"
#include "interface/host/marshal.h"
#include "platform/linux/binder_object.h"
#include "platform/linux/parcel.h"
#include "tests/support/bytes.h"

namespace kvox::fuzz {
namespace {

constexpr int kMostSteps = 40;  // of one input

/// A method's request and reply, from its signature as in interface/host/marshal.h.
template <auto method>
struct Call;

template <typename I, typename... Args, ndk::ScopedAStatus (I::*method)(Args...)>
struct Call<method> {
  static void Write(AParcel* parcel, FuzzedDataProvider& input) {
    (WriteOne<Args>(parcel, input), ...);
  }
  /// The result comes first, then the other out arguments in order.
  static void CheckReply(const AParcel* reply) {
    ndk::ScopedAStatus status;
    Check(AParcel_readStatusHeader(reply, status.getR()) == STATUS_OK && status.isOk(),
          "a valid call returns its result");
    constexpr size_t kCount = sizeof...(Args);
    if constexpr (kCount > 0) {
      using Last = std::tuple_element_t<kCount - 1, std::tuple<Args...>>;
      ReadOne<Last>(reply);
      ReadOthers<std::tuple<Args...>>(reply, std::make_index_sequence<kCount - 1>());
    }
    Check(reply->BytesLeft() == 0, "a reply holds its results and nothing else");
  }

 private:
  template <typename Arg>
  static void WriteOne(AParcel* parcel, FuzzedDataProvider& input) {
    if constexpr (!std::is_pointer_v<Arg>) {
      const auto value = AnyValue<std::remove_cvref_t<Arg>>(input);
      Check(ndk::AParcel_writeData(parcel, value) == STATUS_OK, "a value fits into a parcel");
    }
  }
  template <typename Arg>
  static void ReadOne(const AParcel* reply) {
    if constexpr (std::is_pointer_v<Arg>) {
      std::remove_pointer_t<Arg> value;
      Check(ndk::AParcel_readData(reply, &value) == STATUS_OK, "a reply holds its results");
    }
  }
  template <typename Tuple, size_t... index>
  static void ReadOthers(const AParcel* reply, std::index_sequence<index...>) {
    (ReadOne<std::tuple_element_t<index, Tuple>>(reply), ...);
  }
};

struct Method {
  transaction_code_t code;
  void (*write)(AParcel*, FuzzedDataProvider&);
  void (*check_reply)(const AParcel*);
};

#define KVOX_ROW(name, parameters, arguments) \
  {IKvox::TRANSACTION_##name, Call<&IKvox::name>::Write, Call<&IKvox::name>::CheckReply},
constexpr Method kMethods[] = {
    KVOX_METHODS(KVOX_ROW){aidl::kvox::kVersionTransaction,
                           Call<&IKvox::getInterfaceVersion>::Write,
                           Call<&IKvox::getInterfaceVersion>::CheckReply},
    {aidl::kvox::kHashTransaction, Call<&IKvox::getInterfaceHash>::Write,
     Call<&IKvox::getInterfaceHash>::CheckReply}};
#undef KVOX_ROW
static_assert(std::size(kMethods) == 41);

/// A request's bytes with some words changed, removed or added.
std::vector<uint8_t> Broken(const AParcel& request, FuzzedDataProvider& input) {
  std::vector<uint8_t> bytes(request.data().begin(), request.data().end());
  constexpr int32_t kWords[] = {-1, 0, 1, 2, 3, 4, 64, 0x10000, INT32_MAX, INT32_MIN};
  for (int i = input.ConsumeIntegralInRange(0, 3); i > 0 && bytes.size() >= 4; --i) {
    const int32_t word =
        input.ConsumeBool() ? input.PickValueInArray(kWords) : input.ConsumeIntegral<int32_t>();
    const size_t at = 4 * input.ConsumeIntegralInRange<size_t>(0, bytes.size() / 4 - 1);
    std::memcpy(&bytes[at], &word, sizeof word);
  }
  const std::string more = input.ConsumeRandomLengthString(64);
  if (input.ConsumeBool()) bytes.resize(input.ConsumeIntegralInRange<size_t>(0, bytes.size()));
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
}

void Transact(FuzzedDataProvider& input, KvoxService& service) {
  const Method& method = kMethods[input.ConsumeIntegralInRange<size_t>(0, std::size(kMethods) - 1)];
  const ndk::SpAIBinder binder = service.asBinder();
  ndk::ScopedAParcel request;
  Check(AIBinder_prepareTransaction(binder.get(), request.getR()) == STATUS_OK,
        "a call can be prepared");
  method.write(request.get(), input);
  const bool sound = input.ConsumeIntegralInRange(0, 3) < 3;
  std::unique_ptr<AParcel> reply;
  if (sound) {
    Check(binder.get()->Transact(method.code, *request.get(), 0, &reply) == STATUS_OK,
          "a valid call is served");
    method.check_reply(reply.get());
    return;
  }
  std::vector<AParcel::Object> objects(request.get()->objects().begin(),
                                       request.get()->objects().end());
  AParcel broken(Broken(*request.get(), input), std::move(objects));
  const binder_status_t status = binder.get()->Transact(method.code, broken, 0, &reply);
  Check((status == STATUS_OK) == (reply != nullptr), "a call is answered or refused");
}

void Deliver(FuzzedDataProvider& input, const DeviceNodes& nodes) {
  constexpr size_t kTapouts = 4;
  const auto device = input.ConsumeIntegralInRange<size_t>(0, kTapouts - 1);
  if (input.ConsumeIntegralInRange(0, 3) == 0) {
    const std::string noise = input.ConsumeRandomLengthString(256);
    nodes.Deliver(device, std::as_bytes(std::span(noise)));
    return;
  }
  const auto number = input.ConsumeIntegral<uint8_t>();
  const uint32_t size = 960 * input.ConsumeIntegralInRange(0u, 4u);
  const KvoxTapFormat format = {.sample_rate = 48000,
                                .channels = input.ConsumeIntegralInRange<uint8_t>(0, 3),
                                .bytes_per_sample = input.ConsumeIntegralInRange<uint8_t>(1, 4),
                                .data_format = input.ConsumeIntegralInRange<uint8_t>(0, 3),
                                .noninterleaved_samples = input.ConsumeBool() ? 0u : 480u};
  nodes.Deliver(device, MakePacket(number, size, format));
}

void Step(FuzzedDataProvider& input, ServiceWorld& world, DeviceNodes& nodes) {
  switch (input.ConsumeIntegralInRange(0, 15)) {
    case 0:
      return world.link().SetNoise(input.ConsumeRandomLengthString(64));
    case 1:
      return world.Switch(
          input.ConsumeIntegralInRange<size_t>(0, std::size(DeviceNodes::kNames) - 1),
          input.ConsumeBool());
    case 2:
      return world.Recover();
    case 3:
      return Deliver(input, nodes);
    case 4:
      return nodes.Drain();
    default:
      return Transact(input, world.service());
  }
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvox::fuzz;
  static DeviceNodes nodes;
  FuzzedDataProvider input(data, size);
  ServiceWorld world(nodes);
  for (int i = 0; i < kMostSteps && input.remaining_bytes() > 0; ++i) Step(input, world, nodes);
  return 0;
}
