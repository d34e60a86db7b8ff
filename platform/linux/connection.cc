#include "platform/linux/connection.h"

#include <event2/buffer.h>
#include <malloc.h>

#include <atomic>
#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/closer.h"
#include "platform/linux/disconnect_log.h"
#include "platform/linux/local_object.h"
#include "platform/linux/parcel.h"
#include "platform/linux/reactor.h"
#include "platform/linux/remote_object.h"
#include "platform/linux/status.h"

namespace kvox::binder {
namespace {

/// Dropping a parcel may drop the last reference to an object, whose code the reactor must not run.
/// Its bytes are freed at once: it may take long until a pool thread is free.
void DropOnPool(std::unique_ptr<AParcel> parcel) {
  if (parcel == nullptr || parcel->objects().empty()) return;
  parcel->DropBytes();
  ThreadPool::Get().Post([held = std::shared_ptr<AParcel>(std::move(parcel))] {});
}

/// Returns free memory to the system once all of a connection's memory is free.
void TrimSoon() {
  static std::atomic<bool> pending = false;
  if (pending.exchange(true)) return;
  Reactor::Get().PostLater(kTrimPause, [] {
    pending = false;
    malloc_trim(0);
  });
}

iovec Part(const void* bytes, size_t size) {
  return {const_cast<void*>(bytes), size};
}

}  // namespace

Connection::Connection(const Credentials& peer, std::shared_ptr<ServicePort> port)
    : RequestQueue(peer, port != nullptr),
      peer_(peer),
      load_(port ? port->load() : nullptr),
      port_(std::move(port)),
      greeted_(port_ == nullptr),
      channel_(*this, load_ ? kUnreadTimeout : std::chrono::seconds(0)) {}

void Connection::Accept(UniqueFd fd, const Credentials& peer, std::shared_ptr<ServicePort> port) {
  const ndk::SpAIBinder root = port->root();
  const auto connection = std::make_shared<Connection>(peer, std::move(port));
  std::string descriptor = root.get()->clazz()->descriptor;
  ServiceGreeting greeting;
  greeting.descriptor_size = static_cast<uint32_t>(descriptor.size());
  greeting.address = connection->objects_.Export(root);
  descriptor.resize(PaddedSize(greeting.descriptor_size));
  if (!connection->Open(std::move(fd), sizeof(ClientGreeting))) return;
  connection->channel_.Send(
      {Part(&greeting, sizeof greeting), Part(descriptor.data(), descriptor.size())});
}

std::shared_ptr<Connection> Connection::Join(UniqueFd fd, uint64_t root_address,
                                             std::string_view descriptor, ndk::SpAIBinder* root) {
  auto connection = std::make_shared<Connection>(PeerCredentials(fd.get()), nullptr);
  *root = connection->objects_.Import(root_address, descriptor, connection);
  return connection->Open(std::move(fd), sizeof(FrameHeader)) ? connection : nullptr;
}

bool Connection::Open(UniqueFd fd, size_t first_bytes) {
  // The reactor knows the connection before anything can happen to it.
  if (load_) load_member_ = load_->Add(peer_.uid, std::shared_ptr<LoadMember>(Self(), this));
  event_base* base = Reactor::Get().Start();
  if (base == nullptr) {
    Closer::Get().Close(std::move(fd), peer_);
  } else {
    Reactor::Get().Keep(Self());
    if (channel_.Open(base, std::move(fd), first_bytes)) {
      if (greeted_) channel_.LimitTime({});
      return true;
    }
  }
  Close();  // no callback will do it
  return false;
}

binder_status_t Connection::Transact(uint64_t id, transaction_code_t code, AParcel& in,
                                     binder_flags_t flags, std::unique_ptr<AParcel>* out) {
  if (in.data().size() > kMaxParcelSize) {
    LogError("binder: a call of %zu bytes is too large, %u is the most", in.data().size(),
             kMaxParcelSize);
    return STATUS_FAILED_TRANSACTION;
  }
  std::vector<uint8_t> object_list;
  const binder_status_t status = objects_.Export(in, *this, &object_list);
  if (status != STATUS_OK) return status;
  FrameHeader header;
  header.code = code;
  header.address = id << 1 | kReceiversObject;
  header.flags = flags;
  if ((flags & FLAG_ONEWAY) != 0) {
    *out = std::make_unique<AParcel>();
    return Send(header, in, object_list) ? STATUS_OK : STATUS_DEAD_OBJECT;
  }
  std::future<Reply> call = calls_.Add(&header.call);
  if (!Send(header, in, object_list) && calls_.Abandon(header.call)) return STATUS_DEAD_OBJECT;
  // The reply may be queued behind requests that wait for this very thread.
  if (ThreadPool::Get().Paused(*this)) channel_.UpdateReading();
  Reply reply = call.get();
  if (reply.status == STATUS_OK) *out = std::move(reply.parcel);
  return reply.status;
}

ndk::SpAIBinder Connection::QueryRoot(std::chrono::steady_clock::time_point deadline) {
  FrameHeader header;
  header.type = FrameType::kRootRequest;
  std::future<Reply> call = calls_.Add(&header.call);
  const bool sent = Send(header, AParcel(), {});
  if (ThreadPool::Get().Paused(*this)) channel_.UpdateReading();
  const bool answered = sent && call.wait_until(deadline) == std::future_status::ready;
  if (!answered && calls_.Abandon(header.call)) return nullptr;
  const Reply reply = call.get();
  ndk::SpAIBinder root;
  if (reply.status == STATUS_OK) AParcel_readStrongBinder(reply.parcel.get(), root.getR());
  return root;
}

void Connection::Forget(const RemoteObject& proxy) {
  FrameHeader header;
  header.type = FrameType::kRelease;
  header.address = proxy.id() << 1 | kReceiversObject;
  header.call = objects_.RemoveProxy(proxy);
  if (header.call > 0) Send(header, AParcel(), {});
}

bool Connection::Send(FrameHeader header, const AParcel& parcel,
                      const std::vector<uint8_t>& object_list) {
  header.object_count = static_cast<uint32_t>(parcel.objects().size());
  header.parcel_size = static_cast<uint32_t>(parcel.data().size());
  header.object_list_size = static_cast<uint32_t>(object_list.size());
  const bool sent =
      channel_.Send({Part(&header, sizeof header), Part(parcel.data().data(), parcel.data().size()),
                     Part(object_list.data(), object_list.size())});
  if (load_) load_->Relieve();
  return sent;
}

void Connection::SendReply(uint64_t call, binder_status_t status, AParcel& reply) {
  std::vector<uint8_t> object_list;
  if (status == STATUS_OK && reply.data().size() > kMaxParcelSize) {
    LogError("binder: a reply of %zu bytes is too large, %u is the most", reply.data().size(),
             kMaxParcelSize);
    status = STATUS_FAILED_TRANSACTION;
  }
  if (status == STATUS_OK) status = objects_.Export(reply, *this, &object_list);
  FrameHeader header;
  header.type = FrameType::kReply;
  header.call = call;
  header.code = static_cast<uint32_t>(status);
  const AParcel nothing;
  Send(header, status == STATUS_OK ? reply : nothing, object_list);
}

void Connection::Serve(Request request) {
  AParcel reply;
  binder_status_t status = STATUS_OK;
  {
    const ScopedCallingIdentity caller(peer_);
    auto* target = static_cast<LocalObject*>(request.target.get());
    status = target->Handle(request.code, *request.parcel, reply);
  }
  if (!request.oneway()) SendReply(request.call, status, reply);
}

size_t Connection::OnInput(evbuffer* input) {
  const auto self = Self();  // Close drops the reactor's reference
  if (const char* fault = TakeGreeting(input)) {
    Close(fault);
    return 0;
  }
  FrameHeader header;
  for (int taken = 0; taken < kMaxFramesAtOnce; ++taken) {
    const size_t size = evbuffer_get_length(input);
    if (size < sizeof header) return sizeof header;
    const bool paused = ThreadPool::Get().Paused(*this);
    if (paused && !channel_.UpdateReading()) return sizeof header;
    evbuffer_copyout(input, &header, sizeof header);
    const char* fault = CheckHeader(header);
    if (fault == nullptr && size < header.FrameSize()) {
      return MayReceive(header) ? header.FrameSize() : sizeof header;
    }
    // It is only read to get at a reply; replies of ours would pile up.
    const bool unread = paused && ThreadPool::Get().Blocked(*this);
    if (!unread) unread_questions_ = 0;
    if (unread && header.type == FrameType::kRootRequest &&
        ++unread_questions_ > kMaxUnreadQuestions) {
      fault = "questions, and does not read the answers";
    }
    if (fault == nullptr) fault = TakeFrame(header, input);
    if (fault != nullptr) {
      Close(fault);
      return 0;
    }
  }
  return sizeof header;
}

/// A large frame waits in the socket until there is room. Until then nothing more is read.
bool Connection::MayReceive(const FrameHeader& header) {
  if (load_ == nullptr || memory_) return true;
  awaits_room_ = true;  // before another thread may say that there is some
  memory_ = load_->TakeFrame(load_member_, header.FrameSize());
  if (memory_) awaits_room_ = false;
  channel_.UpdateReading();  // another thread may have turned it off because of the flag
  if (memory_ && header.FrameSize() > kLargeFrame) channel_.LimitTime(kLargeFrameTimeout);
  return memory_ != nullptr;
}

void Connection::OnLargeFrameMayFit() {
  awaits_room_ = false;
  channel_.UpdateReading();
}

const char* Connection::TakeGreeting(evbuffer* input) {
  ClientGreeting greeting;
  if (greeted_ || evbuffer_get_length(input) < sizeof greeting) return nullptr;
  evbuffer_remove(input, &greeting, sizeof greeting);
  greeted_ = true;
  channel_.LimitTime({});
  if (greeting.magic != kTransportMagic) return "a foreign greeting";
  return greeting.version == kTransportVersion ? nullptr : "a greeting of another version";
}

const char* Connection::TakeFrame(const FrameHeader& header, evbuffer* input) {
  evbuffer_drain(input, sizeof header);
  received_ += header.FrameSize();
  auto memory = std::move(memory_);
  if (memory) channel_.LimitTime({});
  if (header.type == FrameType::kRelease) {
    ndk::SpAIBinder last;
    if (!objects_.Release(header.address, header.call, &last)) return "a false release";
    if (last.get() != nullptr) ThreadPool::Get().Post([held = std::move(last)] {});
    return nullptr;
  }
  if (header.type == FrameType::kRootRequest) {
    if (port_ == nullptr) return "a question for a service it is not connected to";
    AParcel reply;
    AParcel_writeStrongBinder(&reply, port_->root().get());
    SendReply(header.call, STATUS_OK, reply);
    return nullptr;
  }
  std::vector<uint8_t> data(header.parcel_size);
  std::vector<uint8_t> object_list(header.object_list_size);
  evbuffer_remove(input, data.data(), data.size());
  evbuffer_remove(input, object_list.data(), object_list.size());
  std::vector<AParcel::Object> objects;
  const char* fault = objects_.Import(data, object_list, header.object_count, Self(), &objects);
  auto parcel = std::make_unique<AParcel>(std::move(data), std::move(objects));
  if (fault != nullptr) {
    DropOnPool(std::move(parcel));
    return fault;
  }
  if (header.type == FrameType::kRequest) {
    if (load_ && !memory) memory = load_->TakeFrame(load_member_, header.FrameSize());
    return TakeRequest(header, std::move(parcel), std::move(memory));
  }
  Reply reply{KnownStatus(static_cast<binder_status_t>(header.code)), std::move(parcel)};
  const bool expected = calls_.Finish(header.call, &reply);
  DropOnPool(std::move(reply.parcel));
  return expected ? nullptr : "a reply to no call";
}

const char* Connection::TakeRequest(const FrameHeader& header, std::unique_ptr<AParcel> parcel,
                                    std::unique_ptr<ServiceLoad::Hold> memory) {
  ndk::SpAIBinder target = objects_.Find(header.address);
  if (target.get() == nullptr) {
    DropOnPool(std::move(parcel));
    return "a call of an object that it was never given";
  }
  Request request{.target = std::move(target),
                  .call = header.call,
                  .code = header.code,
                  .flags = header.flags,
                  .parcel = std::move(parcel),
                  .memory = std::move(memory)};
  const bool fits = ThreadPool::Get().Enqueue(*this, std::move(request));
  return fits ? nullptr : "too many calls at once";
}

bool Connection::WantsInput() const {
  return !awaits_room_ && (!ThreadPool::Get().Paused(*this) || !calls_.empty());
}

void Connection::OnUnsent(size_t bytes) {
  ThreadPool::Get().SetBlocked(*this, bytes > kPauseUnsentBytes);
  if (load_) load_->SetUnread(load_member_, bytes);
}

void Connection::Close(const char* fault) {
  if (std::exchange(closed_, true)) return;
  const auto self = Self();
  UniqueFd socket = channel_.Close();
  memory_ = nullptr;
  calls_.FinishAll(STATUS_DEAD_OBJECT);
  Reactor::Get().Forget(self);

  struct Orphans {
    ObjectTable::Orphans objects;
    std::deque<Request> requests;
  };
  auto orphans = std::make_shared<Orphans>();
  orphans->objects = objects_.Close();
  orphans->requests = ThreadPool::Get().Clear(*this);
  for (Request& request : orphans->requests) {
    request.parcel->DropBytes();
    request.memory = nullptr;
  }
  if (load_) load_->Remove(load_member_);
  for (const auto& proxy : orphans->objects.proxies) proxy.get()->AsRemote()->Die();
  // The peer counts as connected until all of this is freed: otherwise one that connects again and
  // again would fill the memory while the threads are busy.
  std::shared_ptr<ClientPlace> place;
  if (port_ != nullptr) {
    place = std::make_shared<ClientPlace>(std::exchange(port_, nullptr), peer_);
    Closer::Get().Close(std::move(socket), peer_, place);
  }
  // On the pool, since the log may block. The port holds the service, which may hold proxies of
  // this connection.
  ThreadPool::Get().Post(
      [held = std::move(orphans), fault, peer = peer_, place = std::move(place)] {
        if (fault != nullptr) LogDisconnect(peer, fault);
        for (const auto& proxy : held->objects.proxies) ReportDeath(*proxy.get()->AsRemote());
        *held = {};
      });
  if (received_ >= kTrimBytes) TrimSoon();
}

}  // namespace kvox::binder
