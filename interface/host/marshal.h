// Turns a method's signature into its request and reply, and a parcelable's fields into bytes.
//
// A pointer among a method's parameters is an out argument, and the last pointer is its result. The
// request holds the other arguments in order; the reply holds the status, the result, and then the
// out arguments in order.
#pragma once

#include <android/binder_interface_utils.h>
#include <android/binder_parcel_utils.h>
#include <android/binder_to_string.h>

#include <climits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

namespace aidl::kvox {

inline constexpr transaction_code_t kVersionTransaction = FIRST_CALL_TRANSACTION + 16777214;
inline constexpr transaction_code_t kHashTransaction = FIRST_CALL_TRANSACTION + 16777213;

template <auto method>
struct Marshal;

template <typename I, typename... Args, ::ndk::ScopedAStatus (I::*method)(Args...)>
struct Marshal<method> {
  /// The client's side of one call.
  static ::ndk::ScopedAStatus Call(AIBinder* binder, transaction_code_t code, Args... args) {
    ::ndk::ScopedAParcel in;
    ::ndk::ScopedAParcel out;
    ::ndk::ScopedAStatus answer;
    binder_status_t status = AIBinder_prepareTransaction(binder, in.getR());
    [[maybe_unused]] const auto write = [&](const auto& arg) {
      return ::ndk::AParcel_writeData(in.get(), arg);
    };
    (Step<!kIsOut<Args>>(status, args, write), ...);
    if (status == STATUS_OK) {
      status = AIBinder_transact(binder, code, in.getR(), out.getR(), 0);
    }
    if (status == STATUS_OK) status = AParcel_readStatusHeader(out.get(), answer.getR());
    if (status != STATUS_OK) return ::ndk::ScopedAStatus::fromStatus(status);
    if (!answer.isOk()) return answer;
    status = ForEachOut(std::forward_as_tuple(args...),
                        [&](auto* value) { return ::ndk::AParcel_readData(out.get(), value); });
    return status == STATUS_OK ? std::move(answer) : ::ndk::ScopedAStatus::fromStatus(status);
  }

  /// The server's side of one call.
  static binder_status_t Serve(I& implementation, const AParcel* in, AParcel* out) {
    std::tuple<Value<Args>...> values{};
    binder_status_t status = STATUS_OK;
    [[maybe_unused]] const auto read = [&](auto& value) {
      return ::ndk::AParcel_readData(in, &value);
    };
    std::apply([&](auto&... value) { (Step<!kIsOut<Args>>(status, value, read), ...); }, values);
    if (status != STATUS_OK) return status;
    const auto call = [&](auto&... value) {
      return (implementation.*method)(Pass<Args>(value)...);
    };
    const ::ndk::ScopedAStatus answer = std::apply(call, values);
    status = AParcel_writeStatusHeader(out, answer.get());
    if (status != STATUS_OK || !answer.isOk()) return status;
    const auto all = std::apply([](auto&... value) { return std::make_tuple(&value...); }, values);
    return ForEachOut(all, [&](auto* value) { return ::ndk::AParcel_writeData(out, *value); });
  }

 private:
  template <typename Arg>
  static constexpr bool kIsOut = std::is_pointer_v<Arg>;
  template <typename Arg>
  using Value = std::remove_cvref_t<std::remove_pointer_t<Arg>>;

  template <typename Arg>
  static decltype(auto) Pass(Value<Arg>& value) {
    if constexpr (kIsOut<Arg>) {
      return &value;
    } else {
      return (value);
    }
  }

  /// Only what is wanted is even compiled.
  template <bool wanted, typename T, typename Action>
  static void Step(binder_status_t& status, T& value, const Action& action) {
    if constexpr (wanted) {
      if (status == STATUS_OK) status = action(value);
    }
  }

  /// The result first, then the other out arguments in order. `all` holds pointers at their places.
  template <typename Tuple, typename Action>
  static binder_status_t ForEachOut(const Tuple& all, const Action& action) {
    return ForEachOut(all, action, std::index_sequence_for<Args...>());
  }
  template <typename Tuple, typename Action, size_t... index>
  static binder_status_t ForEachOut(const Tuple& all, const Action& action,
                                    std::index_sequence<index...>) {
    binder_status_t status = STATUS_OK;
    constexpr size_t kLast = sizeof...(Args) - 1;
    (Step<(kIsOut<Args> && index == kLast)>(status, std::get<index>(all), action), ...);
    (Step<(kIsOut<Args> && index != kLast)>(status, std::get<index>(all), action), ...);
    return status;
  }
};

template <typename I>
using Server = binder_status_t (*)(I&, const AParcel*, AParcel*);

/// The method a code stands for, from a table of methods in order.
template <typename I, size_t N>
binder_status_t Dispatch(const Server<I> (&methods)[N], AIBinder* binder, transaction_code_t code,
                         const AParcel* in, AParcel* out) {
  const auto implementation = std::static_pointer_cast<I>(::ndk::ICInterface::asInterface(binder));
  if (code == kVersionTransaction) {
    return Marshal<&I::getInterfaceVersion>::Serve(*implementation, in, out);
  }
  if (code == kHashTransaction) {
    return Marshal<&I::getInterfaceHash>::Serve(*implementation, in, out);
  }
  const size_t index = code - FIRST_CALL_TRANSACTION;
  return index < N ? methods[index](*implementation, in, out) : STATUS_UNKNOWN_TRANSACTION;
}

/// A question whose first good answer is kept.
template <auto method, typename T>
::ndk::ScopedAStatus CallOnce(AIBinder* binder, transaction_code_t code, std::mutex& mutex,
                              std::optional<T>& cache, T* answer) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (cache) {
      *answer = *cache;
      return ::ndk::ScopedAStatus::ok();
    }
  }
  auto status = Marshal<method>::Call(binder, code, answer);
  const std::lock_guard<std::mutex> lock(mutex);
  if (status.isOk()) cache = *answer;
  return status;
}

/// The implementation behind a local object, a proxy for a remote one, null for another interface.
template <typename I, typename Proxy>
std::shared_ptr<I> InterfaceOf(const ::ndk::SpAIBinder& binder, const AIBinder_Class* clazz) {
  if (AIBinder_associateClass(binder.get(), clazz)) {
    if (auto local = ::ndk::ICInterface::asInterface(binder.get())) {
      return std::static_pointer_cast<I>(local);
    }
    return ::ndk::SharedRefBase::make<Proxy>(binder);
  }
  // Other code of this process may have named the interface first, with a class of its own.
  const AIBinder_Class* other = AIBinder_getClass(binder.get());
  const bool same =
      other != nullptr && strcmp(AIBinder_Class_getDescriptor(other), I::descriptor) == 0;
  return same ? ::ndk::SharedRefBase::make<Proxy>(binder) : nullptr;
}

/// The fields behind a word that counts the bytes of both.
template <typename... Fields>
binder_status_t WriteFields(AParcel* parcel, const std::tuple<const Fields&...>& fields) {
  const int32_t start = AParcel_getDataPosition(parcel);
  binder_status_t status = AParcel_writeInt32(parcel, 0);
  const auto write = [&](const auto& field) {
    if (status == STATUS_OK) status = ::ndk::AParcel_writeData(parcel, field);
  };
  std::apply([&](const auto&... field) { (write(field), ...); }, fields);
  if (status != STATUS_OK) return status;
  const int32_t end = AParcel_getDataPosition(parcel);
  AParcel_setDataPosition(parcel, start);
  status = AParcel_writeInt32(parcel, end - start);
  AParcel_setDataPosition(parcel, end);
  return status;
}

/// Fields that an older sender does not know keep their values; those that only a newer one knows
/// are passed over.
template <typename... Fields>
binder_status_t ReadFields(const AParcel* parcel, const std::tuple<Fields&...>& fields) {
  const int32_t start = AParcel_getDataPosition(parcel);
  int32_t size = 0;
  binder_status_t status = AParcel_readInt32(parcel, &size);
  if (status != STATUS_OK) return status;
  if (size < static_cast<int32_t>(sizeof size) || start > INT32_MAX - size) return STATUS_BAD_VALUE;
  const auto read = [&](auto& field) {
    const bool more = AParcel_getDataPosition(parcel) - start < size;
    if (status == STATUS_OK && more) status = ::ndk::AParcel_readData(parcel, &field);
  };
  std::apply([&](auto&... field) { (read(field), ...); }, fields);
  return status == STATUS_OK ? AParcel_setDataPosition(parcel, start + size) : status;
}

/// "Type{name: value, ...}", with the names as one text.
template <typename... Fields>
std::string FieldsToString(const char* type, std::string_view names,
                           const std::tuple<const Fields&...>& fields) {
  std::string text = std::string(type) + "{";
  const auto append = [&](const auto& field) {
    const size_t comma = names.find(", ");
    text += std::string(names.substr(0, comma)) + ": " + ::android::internal::ToString(field);
    if (comma == std::string_view::npos) return;
    text += ", ";
    names.remove_prefix(comma + 2);
  };
  std::apply([&](const auto&... field) { (append(field), ...); }, fields);
  return text + "}";
}

/// The tag, then the value.
template <typename... Values>
binder_status_t WriteUnion(AParcel* parcel, const std::variant<Values...>& value) {
  const binder_status_t status = AParcel_writeInt32(parcel, static_cast<int32_t>(value.index()));
  if (status != STATUS_OK) return status;
  return std::visit([&](const auto& held) { return ::ndk::AParcel_writeData(parcel, held); },
                    value);
}

template <typename Held, typename Union>
binder_status_t ReadHeld(const AParcel* parcel, Union* value) {
  Held held{};
  const binder_status_t status = ::ndk::AParcel_readData(parcel, &held);
  if (status == STATUS_OK) *value = std::move(held);
  return status;
}

template <typename... Values>
binder_status_t ReadUnion(const AParcel* parcel, std::variant<Values...>* value) {
  using Reader = binder_status_t (*)(const AParcel*, std::variant<Values...>*);
  constexpr Reader kReaders[] = {ReadHeld<Values>...};
  int32_t tag = 0;
  const binder_status_t status = AParcel_readInt32(parcel, &tag);
  if (status != STATUS_OK) return status;
  const auto index = static_cast<size_t>(tag);
  return index < sizeof...(Values) ? kReaders[index](parcel, value) : STATUS_BAD_VALUE;
}

}  // namespace aidl::kvox
