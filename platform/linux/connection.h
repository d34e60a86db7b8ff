// One connection between two processes. Except for the greeting it is symmetric: each end calls
// objects of the other.
//
// Locks, in this order: the channel's, then the pool's or the call table's. The object table's is
// taken under none of them, and no code of an object runs under any.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string_view>

#include "platform/linux/call_table.h"
#include "platform/linux/channel.h"
#include "platform/linux/credentials.h"
#include "platform/linux/frames.h"
#include "platform/linux/object_table.h"
#include "platform/linux/service_load.h"
#include "platform/linux/service_port.h"
#include "platform/linux/thread_pool.h"

namespace kvox::binder {

/// Owned by the reactor until it is closed, and by the proxies of the peer's objects.
class Connection final : public RequestQueue, private ChannelOwner, private LoadMember {
 public:
  /// The service's end: greets the client with the port's object. The port has admitted `peer`.
  static void Accept(UniqueFd fd, const Credentials& peer, std::shared_ptr<ServicePort> port);
  /// The client's end, after the service's greeting. Sets `root` to the service's object. Null when
  /// the system refuses.
  static std::shared_ptr<Connection> Join(UniqueFd fd, uint64_t root_address,
                                          std::string_view descriptor, ndk::SpAIBinder* root);

  Connection(const Credentials& peer, std::shared_ptr<ServicePort> port);

  /// Calls the peer's object `id`.
  binder_status_t Transact(uint64_t id, transaction_code_t code, AParcel& in, binder_flags_t flags,
                           std::unique_ptr<AParcel>* out);
  /// The service's current object; null when there is no reply in time.
  ndk::SpAIBinder QueryRoot(std::chrono::steady_clock::time_point deadline);
  /// The last reference to a proxy is gone.
  void Forget(const RemoteObject& proxy);

  bool open() const { return channel_.open(); }
  /// Ends every call with STATUS_DEAD_OBJECT; a pool thread reports the deaths and drops the
  /// objects. `fault` is what the peer did wrong, if anything. On the reactor, or when that has
  /// ended.
  void Close(const char* fault = nullptr);

 private:
  bool Open(UniqueFd fd, size_t first_bytes);
  std::shared_ptr<Connection> Self() {
    return std::static_pointer_cast<Connection>(shared_from_this());
  }
  bool Send(FrameHeader header, const AParcel& parcel, const std::vector<uint8_t>& object_list);
  void SendReply(uint64_t call, binder_status_t status, AParcel& reply);

  // RequestQueue
  void Serve(Request request) override;
  void OnResume() override { channel_.UpdateReading(); }

  // ChannelOwner
  size_t OnInput(evbuffer* input) override;
  void OnBroken(const char* fault) override { Close(fault); }
  bool WantsInput() const override;
  void OnUnsent(size_t bytes) override;

  // LoadMember
  void OnLargeFrameMayFit() override;
  void OnOverload() override { channel_.Break("more than others leave room for"); }

  /// These return what is wrong, or null.
  const char* TakeGreeting(evbuffer* input);
  const char* TakeFrame(const FrameHeader& header, evbuffer* input);
  const char* TakeRequest(const FrameHeader& header, std::unique_ptr<AParcel> parcel,
                          std::unique_ptr<ServiceLoad::Hold> memory);
  bool MayReceive(const FrameHeader& header);

  const Credentials peer_;
  const std::shared_ptr<ServiceLoad> load_;  // null: the client's end
  // The next six are the reactor's.
  std::shared_ptr<ServicePort> port_;  // null: the client's end, or closed
  bool greeted_;
  bool closed_ = false;
  size_t received_ = 0;
  int unread_questions_ = 0;
  std::unique_ptr<ServiceLoad::Hold> memory_;  // of the frame that is arriving
  uint64_t load_member_ = 0;                   // constant once it is open
  std::atomic<bool> awaits_room_ = false;      // for a large frame
  Channel channel_;
  ObjectTable objects_;
  CallTable calls_;
};

}  // namespace kvox::binder
