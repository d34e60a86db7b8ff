// The C++ side of kvox/IKvox.aidl, with the names and signatures of the AIDL compiler.
#pragma once

#include <android/binder_enums.h>
#include <android/binder_ibinder.h>
#include <android/binder_interface_utils.h>
#include <android/binder_parcelable_utils.h>
#include <android/binder_to_string.h>

#include <array>
#include <compare>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "aidl/kvox/ikvox_tables.h"

/// The members of every parcelable besides its fields, which are listed.
#define KVOX_PARCELABLE(Type, ...)                                                     \
  static inline const char* descriptor = "kvox.IKvox." #Type;                          \
  static const ::ndk::parcelable_stability_t _aidl_stability = ::ndk::STABILITY_VINTF; \
  static constexpr const char* _field_names = #__VA_ARGS__;                            \
  auto _fields() {                                                                     \
    return std::tie(__VA_ARGS__);                                                      \
  }                                                                                    \
  auto _fields() const {                                                               \
    return std::tie(__VA_ARGS__);                                                      \
  }                                                                                    \
  binder_status_t readFromParcel(const AParcel* parcel);                               \
  binder_status_t writeToParcel(AParcel* parcel) const;                                \
  std::string toString() const;                                                        \
  auto operator<=>(const Type&) const = default;

namespace aidl::kvox {

/// What the stubs of both interfaces share.
template <typename I>
class StubBase : public ::ndk::BnCInterface<I> {
 public:
  ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) override;

 protected:
  ::ndk::SpAIBinder createBinder() override;
};

/// What the proxies of both interfaces share. The first successful results are cached.
template <typename I>
class ProxyBase : public ::ndk::BpCInterface<I> {
 public:
  using ::ndk::BpCInterface<I>::BpCInterface;
  ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) override;

 private:
  std::mutex _cache_mutex;
  std::optional<int32_t> _cached_version;
  std::optional<std::string> _cached_hash;
};

class IKvox : public ::ndk::ICInterface {
 public:
  static inline const char* descriptor = "kvox.IKvox";
  static inline const int32_t version = 3;
  static inline const std::string hash = "6b766f78640000000000000000000000494b0003";

  enum class CommandStatus : int8_t { KVOX_COMMAND_STATUSES(KVOX_ENUMERATOR) };
  enum class UseCase : int8_t { KVOX_USE_CASES(KVOX_ENUMERATOR) };
  enum class ParameterId : int32_t { KVOX_PARAMETER_IDS(KVOX_ENUMERATOR) };

  class CommandResult {
   public:
    CommandStatus status = CommandStatus::OK;
    float value = 0.0f;
    std::vector<std::string> lines;
    KVOX_PARCELABLE(CommandResult, status, value, lines)
  };

  class ParamIdElementPair {
   public:
    ParameterId id = ParameterId::UNSPECIFIED;
    int32_t element = 0;
    KVOX_PARCELABLE(ParamIdElementPair, id, element)
  };

  class AudioPacket {
   public:
    int32_t processor_id = 0;
    std::vector<uint8_t> data;
    int8_t sampleRate = 0;
    int8_t format = 0;
    int8_t bitsPerSample = 0;
    int8_t numChannels = 0;
    KVOX_PARCELABLE(AudioPacket, processor_id, data, sampleRate, format, bitsPerSample, numChannels)
  };

  class ProcessorStats {
   public:
    int32_t blockCount = 0;
    int32_t bufferEntries = 0;
    float averagePeriod = 0.0f;
    std::vector<float> measurements;
    KVOX_PARCELABLE(ProcessorStats, blockCount, bufferEntries, averagePeriod, measurements)
  };

  /// One value of one of three kinds. get() of another kind throws std::bad_variant_access.
  class ParamValue {
    using Value = std::variant<int32_t, float, std::vector<float>>;

   public:
    static inline const char* descriptor = "kvox.IKvox.ParamValue";
    static const ::ndk::parcelable_stability_t _aidl_stability = ::ndk::STABILITY_VINTF;

    enum class Tag : int32_t { KVOX_PARAM_VALUE_TAGS(KVOX_ENUMERATOR) };
    using enum Tag;

    ParamValue() = default;
    template <typename T>
    requires std::is_constructible_v<Value, T> &&
        (!std::is_same_v<std::remove_cvref_t<T>, ParamValue>)constexpr ParamValue(T&& value)
        : _value(std::forward<T>(value)) {}
    template <size_t N, typename... T>
    constexpr explicit ParamValue(std::in_place_index_t<N> index, T&&... value)
        : _value(index, std::forward<T>(value)...) {}

    template <Tag tag, typename... T>
    static ParamValue make(T&&... value) {
      return ParamValue(std::in_place_index<static_cast<size_t>(tag)>, std::forward<T>(value)...);
    }
    template <Tag tag, typename T>
    static ParamValue make(std::initializer_list<T> value) {
      return ParamValue(std::in_place_index<static_cast<size_t>(tag)>, value);
    }

    Tag getTag() const { return static_cast<Tag>(_value.index()); }
    template <Tag tag>
    const auto& get() const {
      return std::get<static_cast<size_t>(tag)>(_value);
    }
    template <Tag tag>
    auto& get() {
      return std::get<static_cast<size_t>(tag)>(_value);
    }
    template <Tag tag, typename... T>
    void set(T&&... value) {
      _value.emplace<static_cast<size_t>(tag)>(std::forward<T>(value)...);
    }

    binder_status_t readFromParcel(const AParcel* parcel);
    binder_status_t writeToParcel(AParcel* parcel) const;
    std::string toString() const;
    auto operator<=>(const ParamValue&) const = default;

   private:
    Value _value;
  };

  class IReceiveAudioCallback : public ::ndk::ICInterface {
   public:
    static inline const char* descriptor = "kvox.IKvox.IReceiveAudioCallback";
    static inline const int32_t version = IKvox::version;
    static inline const std::string& hash = IKvox::hash;
    enum : uint32_t {
      BEFORE_FIRST_TRANSACTION = FIRST_CALL_TRANSACTION - 1,
      KVOX_CALLBACK_METHODS(KVOX_TRANSACTION)
    };
    static std::shared_ptr<IReceiveAudioCallback> fromBinder(const ::ndk::SpAIBinder& binder);

    KVOX_CALLBACK_METHODS(KVOX_PURE_METHOD)
    virtual ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) = 0;
    virtual ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) = 0;
  };

  class BnReceiveAudioCallback : public StubBase<IReceiveAudioCallback> {};

  class BpReceiveAudioCallback : public ProxyBase<IReceiveAudioCallback> {
   public:
    using ProxyBase::ProxyBase;
    KVOX_CALLBACK_METHODS(KVOX_METHOD_OVERRIDE)
  };

  enum : uint32_t {
    BEFORE_FIRST_TRANSACTION = FIRST_CALL_TRANSACTION - 1,
    KVOX_METHODS(KVOX_TRANSACTION)
  };
  static std::shared_ptr<IKvox> fromBinder(const ::ndk::SpAIBinder& binder);

  KVOX_METHODS(KVOX_PURE_METHOD)
  virtual ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) = 0;
};

/// An enumerator's name, or the number of a value that has none.
#define KVOX_DECLARE_TO_STRING(Enum, enumerators) \
  [[nodiscard]] std::string toString(IKvox::Enum value);
KVOX_ENUMS(KVOX_DECLARE_TO_STRING)
#undef KVOX_DECLARE_TO_STRING

}  // namespace aidl::kvox

namespace ndk::internal {

#define KVOX_NAME(name, value) name,
#define KVOX_ENUM_VALUES(Enum, ENUMERATORS)                               \
  template <>                                                             \
  constexpr inline std::array enum_values<aidl::kvox::IKvox::Enum> = [] { \
    using enum aidl::kvox::IKvox::Enum;                                   \
    return std::array{ENUMERATORS(KVOX_NAME)};                            \
  }();
KVOX_ENUMS(KVOX_ENUM_VALUES)
#undef KVOX_ENUM_VALUES
#undef KVOX_NAME

}  // namespace ndk::internal
