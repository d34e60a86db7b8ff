// Arguments of the interface's methods: values meaningful to the service, and random ones.
#pragma once

#include <aidl/kvox/BnKvox.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <atomic>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "kvox/common/four_cc.h"

namespace kvox::fuzz {

using aidl::kvox::IKvox;

/// A client that accepts every other packet.
class FickleReceiver : public IKvox::BnReceiveAudioCallback {
 public:
  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket&) override {
    if (++packets_ % 2 == 0) return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_STATE);
    return ndk::ScopedAStatus::ok();
  }

 private:
  std::atomic<uint32_t> packets_ = 0;
};

inline constexpr FourCc kCodes[] = {MakeFourCc("pas1"), MakeFourCc("pas2"), MakeFourCc("art0"),
                                    MakeFourCc("art1"), MakeFourCc("armd"), MakeFourCc("pass"),
                                    MakeFourCc("arel"), MakeFourCc("imic"), MakeFourCc("vpdl"),
                                    MakeFourCc("vpul"), MakeFourCc("entr"), MakeFourCc("hwae")};
inline constexpr int32_t kNumbers[] = {-2,  -1,    0,         1,         2,     3,     4,     5,
                                       20,  40,    41,        254,       255,   256,   480,   960,
                                       961, 24000, INT32_MIN, INT32_MAX, 65535, 10000, 100000};
inline constexpr const char* kTexts[] = {"MIC_IN",
                                         "speaker_out",
                                         "AREL_TELE",
                                         "PHONEBOOTH",
                                         "AREL_MEDIA_PLAYBACK",
                                         "HOTWORDAEC",
                                         "help",
                                         "buffer_init",
                                         "capture",
                                         "buffer_dump",
                                         "buffer_deinit",
                                         "start",
                                         "stop",
                                         "all",
                                         "tapout",
                                         "inject",
                                         "tapout0",
                                         "inject20",
                                         "/tmp/a file",
                                         "20",
                                         "",
                                         "\xc3\xa9\xf0\x9f\x8e\xa4"};
inline constexpr size_t kMostElements = 70;  // the service takes at most 64

template <typename T>
inline constexpr bool kIsVector = false;
template <typename T>
inline constexpr bool kIsVector<std::vector<T>> = true;

template <typename T>
T AnyValue(FuzzedDataProvider& input) {
  if constexpr (std::is_same_v<T, bool>) {
    return input.ConsumeBool();
  } else if constexpr (std::is_same_v<T, int32_t>) {
    const int kind = input.ConsumeIntegralInRange(0, 7);
    if (kind < 4) return static_cast<int32_t>(input.PickValueInArray(kCodes));
    return kind < 7 ? input.PickValueInArray(kNumbers) : input.ConsumeIntegral<int32_t>();
  } else if constexpr (std::is_enum_v<T>) {
    return static_cast<T>(input.ConsumeIntegral<int8_t>());
  } else if constexpr (std::is_integral_v<T>) {
    return input.ConsumeIntegral<T>();
  } else if constexpr (std::is_same_v<T, float>) {
    return input.ConsumeFloatingPoint<float>();
  } else if constexpr (std::is_same_v<T, std::string>) {
    if (input.ConsumeIntegralInRange(0, 7) < 7) return input.PickValueInArray(kTexts);
    std::string text = input.ConsumeRandomLengthString(300);
    for (char& c : text) c = static_cast<char>(c & 0x7f);
    return text;
  } else if constexpr (kIsVector<T>) {
    T values(input.ConsumeIntegralInRange<size_t>(0, kMostElements));
    for (auto& value : values) {
      if (input.remaining_bytes() > 0) value = AnyValue<typename T::value_type>(input);
    }
    return values;
  } else if constexpr (std::is_same_v<T, IKvox::ParamValue>) {
    switch (input.ConsumeIntegralInRange(0, 2)) {
      case 0:
        return T::template make<T::i>(AnyValue<int32_t>(input));
      case 1:
        return T::template make<T::f>(AnyValue<float>(input));
      default:
        return T::template make<T::v>(AnyValue<std::vector<float>>(input));
    }
  } else if constexpr (std::is_same_v<T, IKvox::ParamIdElementPair>) {
    T pair;
    pair.id = AnyValue<IKvox::ParameterId>(input);
    pair.element = AnyValue<int32_t>(input);
    return pair;
  } else if constexpr (std::is_same_v<T, IKvox::AudioPacket>) {
    // Often one that a relay accepts: a block of 480 frames or a multiple.
    T packet;
    packet.processor_id = AnyValue<int32_t>(input);
    const auto blocks = input.ConsumeIntegralInRange<size_t>(0, 40);
    packet.data.resize(input.ConsumeBool() ? 960 * blocks : blocks);
    packet.sampleRate = input.ConsumeIntegralInRange<int8_t>(-1, 12);
    packet.format = input.ConsumeIntegralInRange<int8_t>(-1, 3);
    packet.bitsPerSample = input.ConsumeIntegralInRange<int8_t>(-1, 4);
    packet.numChannels = input.ConsumeIntegralInRange<int8_t>(-1, 3);
    return packet;
  } else {
    static_assert(std::is_same_v<T, std::shared_ptr<IKvox::IReceiveAudioCallback>>);
    if (input.ConsumeIntegralInRange(0, 3) == 0) return nullptr;
    return ndk::SharedRefBase::make<FickleReceiver>();
  }
}

}  // namespace kvox::fuzz
