// The types of IKvox: names, texts and bytes.
#include "aidl/kvox/IKvox.h"
#include "interface/host/marshal.h"

namespace aidl::kvox {

#define KVOX_DEFINE_PARCELABLE(Type)                                   \
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
  case name:                   \
    return #name;
#define KVOX_TO_STRING(Enum, ENUMERATORS)           \
  std::string toString(IKvox::Enum value) {         \
    using enum IKvox::Enum;                         \
    switch (value) { ENUMERATORS(KVOX_CASE) }       \
    return std::to_string(static_cast<int>(value)); \
  }
KVOX_ENUMS(KVOX_TO_STRING)

}  // namespace aidl::kvox
