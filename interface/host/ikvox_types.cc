// The types of IKvox: names, texts and bytes.
#include "aidl/kvox/IKvox.h"
#include "interface/host/marshal.h"

namespace aidl::kvox {

#define KVOX_DEFINE_PARCELABLE(Type)                                   \
  const char* IKvox::Type::descriptor = "kvox.IKvox." #Type;           \
  binder_status_t IKvox::Type::readFromParcel(const AParcel* parcel) { \
    return ReadFields(parcel, _fields());                              \
  }                                                                    \
  binder_status_t IKvox::Type::writeToParcel(AParcel* parcel) const {  \
    return WriteFields(parcel, _fields());                             \
  }                                                                    \
  std::string IKvox::Type::toString() const {                          \
    return FieldsToString(#Type, _field_names, _fields());             \
  }

KVOX_DEFINE_PARCELABLE(CommandResult)
KVOX_DEFINE_PARCELABLE(ParamIdElementPair)
KVOX_DEFINE_PARCELABLE(AudioPacket)
KVOX_DEFINE_PARCELABLE(ProcessorStats)

const char* IKvox::ParamValue::descriptor = "kvox.IKvox.ParamValue";

binder_status_t IKvox::ParamValue::readFromParcel(const AParcel* parcel) {
  return ReadUnion(parcel, &_value);
}
binder_status_t IKvox::ParamValue::writeToParcel(AParcel* parcel) const {
  return WriteUnion(parcel, _value);
}
std::string IKvox::ParamValue::toString() const {
  const auto text = [](const auto& value) { return ::android::internal::ToString(value); };
  return "ParamValue{" + kvox::toString(getTag()) + ": " + std::visit(text, _value) + "}";
}

#define KVOX_CASE(name, value) \
  case Enum::name:             \
    return #name;

std::string toString(IKvox::CommandStatus status) {
  using Enum = IKvox::CommandStatus;
  switch (status) { KVOX_COMMAND_STATUSES(KVOX_CASE) }
  return std::to_string(static_cast<int>(status));
}
std::string toString(IKvox::UseCase use_case) {
  using Enum = IKvox::UseCase;
  switch (use_case) { KVOX_USE_CASES(KVOX_CASE) }
  return std::to_string(static_cast<int>(use_case));
}
std::string toString(IKvox::ParameterId id) {
  using Enum = IKvox::ParameterId;
  switch (id) { KVOX_PARAMETER_IDS(KVOX_CASE) }
  return std::to_string(static_cast<int>(id));
}
std::string toString(IKvox::ParamValue::Tag tag) {
  constexpr std::array kNames = {"i", "f", "v"};
  const auto index = static_cast<size_t>(tag);
  return index < kNames.size() ? kNames[index] : std::to_string(static_cast<int>(tag));
}

}  // namespace aidl::kvox
