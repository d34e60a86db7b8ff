// Derives request and reply from a method's signature, and bytes from a parcelable's fields.
//
// A pointer among a method's parameters is an out argument, the last pointer is its result. The
// request holds the other arguments in order; the reply holds the status, the result, then the
// other out arguments in order.
#pragma once

#include <android/binder_interface_utils.h>
#include <android/binder_parcel_utils.h>
#include <android/binder_to_string.h>

#include <climits>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

namespace aidl::kvox {

inline constexpr transaction_code_t kVersionTransaction = FIRST_CALL_TRANSACTION + 16777214;
inline constexpr transaction_code_t kHashTransaction = FIRST_CALL_TRANSACTION + 16777213;

/// Calls `action` with each argument that is not a pointer, until one fails.
template <typename Action, typename... Args>
binder_status_t ForEachIn(const Action& action, Args&... args) {
  binder_status_t status = STATUS_OK;
  [[maybe_unused]] const auto step = [&](auto& arg) {
    if constexpr (!std::is_pointer_v<std::remove_cvref_t<decltype(arg)>>) {
      if (status == STATUS_OK) status = action(arg);
    }
  };
  (step(args), ...);
  return status;
}

/// Calls `action` with each pointer, the last one first, until one fails.
template <typename Action, typename... Args>
binder_status_t ForEachOut(const Action& action, Args&... args) {
  binder_status_t status = STATUS_OK;
  for (const bool last : {true, false}) {
    [[maybe_unused]] size_t left = sizeof...(args);
    [[maybe_unused]] const auto step = [&](auto& arg) {
      const bool is_last = --left == 0;
      if constexpr (std::is_pointer_v<std::remove_cvref_t<decltype(arg)>>) {
        if (status == STATUS_OK && is_last == last) status = action(arg);
      }
    };
    (step(args), ...);
  }
  return status;
}

template <auto method>
struct Marshal;

template <typename I, typename... Args, ::ndk::ScopedAStatus (I::*method)(Args...)>
struct Marshal<method> {
  /// The client's side: calls the object's method of this code.
  struct Client {
    AIBinder* binder;
    transaction_code_t code;

    ::ndk::ScopedAStatus operator()(Args... args) const {
      ::ndk::ScopedAParcel in;
      ::ndk::ScopedAParcel out;
      ::ndk::ScopedAStatus answer;
      binder_status_t status = AIBinder_prepareTransaction(binder, in.getR());
      if (status == STATUS_OK) {
        const auto write = [&](auto& arg) { return ::ndk::AParcel_writeData(in.get(), arg); };
        status = ForEachIn(write, args...);
      }
      if (status == STATUS_OK) {
        status = AIBinder_transact(binder, code, in.getR(), out.getR(), 0);
      }
      if (status == STATUS_OK) status = AParcel_readStatusHeader(out.get(), answer.getR());
      if (status != STATUS_OK) return ::ndk::ScopedAStatus::fromStatus(status);
      if (!answer.isOk()) return answer;
      const auto read = [&](auto* arg) { return ::ndk::AParcel_readData(out.get(), arg); };
      status = ForEachOut(read, args...);
      return status == STATUS_OK ? std::move(answer) : ::ndk::ScopedAStatus::fromStatus(status);
    }
  };

  /// The server's side of one call.
  static binder_status_t Serve(I& implementation, const AParcel* in, AParcel* out) {
    std::tuple<Value<Args>...> values{};
    const auto serve = [&](auto&&... args) {
      const auto read = [&](auto& arg) { return ::ndk::AParcel_readData(in, &arg); };
      binder_status_t status = ForEachIn(read, args...);
      if (status != STATUS_OK) return status;
      const ::ndk::ScopedAStatus answer = (implementation.*method)(args...);
      status = AParcel_writeStatusHeader(out, answer.get());
      if (status != STATUS_OK || !answer.isOk()) return status;
      const auto write = [&](auto* arg) { return ::ndk::AParcel_writeData(out, *arg); };
      return ForEachOut(write, args...);
    };
    return std::apply([&](auto&... value) { return serve(Pass<Args>(value)...); }, values);
  }

 private:
  template <typename Arg>
  using Value = std::remove_cvref_t<std::remove_pointer_t<Arg>>;

  template <typename Arg>
  static decltype(auto) Pass(Value<Arg>& value) {
    if constexpr (std::is_pointer_v<Arg>) {
      return &value;
    } else {
      return (value);
    }
  }
};

/// The size in bytes, including this word, then the fields.
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

/// Fields that an older sender does not know keep their values; those of a newer one are skipped.
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

/// "Type{name: value, ...}"; `names` is "name, ...".
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

template <typename... Values>
binder_status_t ReadUnion(const AParcel* parcel, std::variant<Values...>* value) {
  int32_t tag = 0;
  binder_status_t status = AParcel_readInt32(parcel, &tag);
  if (status != STATUS_OK) return status;
  status = STATUS_BAD_VALUE;  // of an unknown tag
  int32_t index = 0;
  const auto read = [&](auto held) {
    if (index++ != tag) return;
    status = ::ndk::AParcel_readData(parcel, &held);
    if (status == STATUS_OK) *value = std::move(held);
  };
  (read(Values{}), ...);
  return status;
}

}  // namespace aidl::kvox
