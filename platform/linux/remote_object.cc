#include "platform/linux/remote_object.h"

#include <utility>

#include "platform/linux/connection.h"
#include "platform/linux/death_links.h"
#include "platform/linux/parcel.h"

namespace kvox::binder {

RemoteObject::RemoteObject(std::shared_ptr<Connection> connection, uint64_t id,
                           std::string descriptor)
    : AIBinder(nullptr),
      connection_(std::move(connection)),
      id_(id),
      descriptor_(std::move(descriptor)) {}

bool RemoteObject::AssociateClass(const AIBinder_Class* wanted) {
  return wanted->descriptor == descriptor_ && SetClass(wanted) == wanted;
}

binder_status_t RemoteObject::Transact(transaction_code_t code, AParcel& in, binder_flags_t flags,
                                       std::unique_ptr<AParcel>* out) {
  if (dead()) return STATUS_DEAD_OBJECT;
  return connection_->Transact(id_, code, in, flags, out);
}

void RemoteObject::OnLastStrong() {
  connection_->Forget(*this);
  UnlinkAll(*this);
}

}  // namespace kvox::binder
