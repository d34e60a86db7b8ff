// Frames of a hostile peer, to a service and to a client that waits for a reply. What comes back is
// well-formed and replies to each call once; other peers are not affected.

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <map>
#include <optional>
#include <thread>

#include "fuzz/check.h"
#include "fuzz/frame_maker.h"
#include "kvox/common/mutex.h"
#include "platform/linux/connection.h"

namespace kvox::fuzz {
namespace {

using binder::Connection;
using binder::FrameHeader;
using binder::FrameType;

constexpr size_t kMaxWire = 64 * 1024;  // fits into the socket, with all its replies
constexpr int kTimeoutMs = 20000;
constexpr uint64_t kRootAddress = 1 << 1 | binder::kReceiversObject;

/// Works like the tests' service, and calls the object that it was given.
class Mirror : public aidl::kvoxtest::BnEcho {
 public:
  ndk::ScopedAStatus Echo(const std::vector<uint8_t>& data, std::vector<uint8_t>* answer) override {
    *answer = data;
    if (const auto object = Exchange(nullptr)) static_cast<void>(object->Note(1));
    return ndk::ScopedAStatus::ok();
  }
  ndk::ScopedAStatus Swap(const std::shared_ptr<IEcho>& object,
                          std::shared_ptr<IEcho>* before) override {
    *before = Exchange(object);
    return ndk::ScopedAStatus::ok();
  }
  ndk::ScopedAStatus Note(int32_t) override { return ndk::ScopedAStatus::ok(); }

  std::shared_ptr<IEcho> Exchange(std::shared_ptr<IEcho> object) {
    MutexLock lock(mutex_);
    return std::exchange(held_, std::move(object));
  }

 private:
  Mutex mutex_;
  std::shared_ptr<IEcho> held_ GUARDED_BY(mutex_);
};

struct SocketPair {
  UniqueFd ours;
  UniqueFd theirs;

  SocketPair() {
    int fds[2];
    Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "there are sockets");
    ours = UniqueFd(fds[0]);
    theirs = UniqueFd(fds[1]);
    Check(fcntl(fds[1], F_SETFL, O_NONBLOCK) == 0, "a socket can be set up");
  }
};

/// The peer's end: what it sends and receives.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {}

  void Send(const Wire& wire) const {
    size_t sent = 0;
    while (sent < wire.size()) {
      const ssize_t count = send(fd_, &wire[sent], wire.size() - sent, MSG_NOSIGNAL);
      if (count < 0 && errno == EINTR) continue;  // the fuzzer's own clock
      if (count <= 0) return;                     // the connection was cut off
      sent += static_cast<size_t>(count);
    }
  }
  void EndSending() const { shutdown(fd_, SHUT_WR); }

  /// False at the end of the stream.
  bool Receive(void* bytes, size_t size) const {
    auto* to = static_cast<uint8_t*>(bytes);
    while (size > 0) {
      pollfd readable{.fd = fd_, .events = POLLIN, .revents = 0};
      const int ready = poll(&readable, 1, kTimeoutMs);
      if (ready < 0 && errno == EINTR) continue;
      Check(ready == 1, "a connection answers or ends");
      const ssize_t count = recv(fd_, to, size, MSG_DONTWAIT);
      if (count <= 0) return false;
      to += count;
      size -= static_cast<size_t>(count);
    }
    return true;
  }
  void SendGreeting() const {
    Wire wire;
    const binder::ClientGreeting greeting;
    Append(wire, &greeting, sizeof greeting);
    Send(wire);
  }
  void ReceiveGreeting() const {
    binder::ServiceGreeting greeting;
    Check(Receive(&greeting, sizeof greeting), "a service greets, whatever it hears");
    Check(greeting.descriptor_size <= binder::kMaxDescriptorSize, "a descriptor is not too long");
    Wire descriptor(binder::PaddedSize(greeting.descriptor_size));
    Check(Receive(descriptor.data(), descriptor.size()), "a greeting is complete");
  }

  /// The next frame, which must be valid; none at the end of the stream.
  std::optional<FrameHeader> ReceiveFrame() const {
    FrameHeader header;
    if (!Receive(&header, sizeof header)) return std::nullopt;
    Check(header.type >= FrameType::kRequest && header.type <= FrameType::kRootRequest,
          "a frame's type is known");
    Check(header.parcel_size <= binder::kMaxParcelSize && header.parcel_size % 4 == 0 &&
              header.object_list_size <= binder::kMaxObjectListSize,
          "a frame's sizes are possible");
    Wire parcel(header.parcel_size);
    Wire list(header.object_list_size);
    if (!Receive(parcel.data(), parcel.size()) || !Receive(list.data(), list.size())) {
      return std::nullopt;
    }
    CheckList(header, list);
    return header;
  }

 private:
  static void CheckList(const FrameHeader& header, std::span<const uint8_t> list) {
    for (uint32_t i = 0; i < header.object_count; ++i) {
      binder::ObjectEntry entry;
      Check(list.size() >= sizeof entry, "an object list has all its entries");
      std::memcpy(&entry, list.data(), sizeof entry);
      const size_t size = sizeof entry + binder::PaddedSize(entry.descriptor_size);
      Check(list.size() >= size, "an entry is complete");
      Check(entry.position + binder::kReferenceSize <= header.parcel_size,
            "a reference lies in the parcel");
      list = list.subspan(size);
    }
    Check(list.empty(), "an object list has nothing else");
  }

  const int fd_;
};

/// By the number of a call, how often it was made and has no reply yet.
using Calls = std::map<uint64_t, int>;

/// Makes frames for a service and notes the calls among them. Returns whether all are valid.
bool MakeRequests(FuzzedDataProvider& input, Wire& wire, Calls& calls) {
  bool sound = true;
  const bool only_sound = input.ConsumeBool();
  uint64_t call = 0;
  while (input.remaining_bytes() > 0 && wire.size() < kMaxWire / 2) {
    const int kind = input.ConsumeIntegralInRange(0, 7);
    binder::Frame frame{.header = {.type = FrameType::kRootRequest}};
    if (kind > 0) frame = AnyRequest(input, kRootAddress);
    if ((frame.header.flags & FLAG_ONEWAY) == 0) frame.header.call = ++call;
    Wire bytes = binder::Wire(frame);
    if (kind > 5 && !only_sound) {
      CorruptFrame(input, bytes);
      sound = false;
    }
    if (kind == 7 && !only_sound) {
      const std::string more = input.ConsumeRandomLengthString(64);
      Append(bytes, more.data(), more.size());
    }
    std::memcpy(&frame.header, bytes.data(), sizeof frame.header);
    if (frame.header.call > 0) ++calls[frame.header.call];
    Append(wire, bytes.data(), bytes.size());
  }
  return sound;
}

void AttackService(FuzzedDataProvider& input, Mirror& mirror) {
  Wire wire;
  Calls calls;
  const bool sound = MakeRequests(input, wire, calls);
  SocketPair sockets;
  auto port = std::make_shared<binder::ServicePort>(mirror.asBinder());
  Connection::Accept(std::move(sockets.theirs), binder::Credentials{0, 1}, std::move(port));
  const Peer peer(sockets.ours.get());
  const bool greets = sound || input.ConsumeIntegralInRange(0, 15) > 0;
  if (greets) peer.SendGreeting();
  peer.Send(wire);
  peer.ReceiveGreeting();
  size_t unanswered = calls.size();
  if (!sound) peer.EndSending();
  while (!sound || unanswered > 0) {
    const auto header = peer.ReceiveFrame();
    if (!header) break;
    if (header->type != FrameType::kReply) continue;
    --unanswered;
    // A corrupted number may be that of another call; a corrupted length may create new frames.
    if (sound) Check(calls[header->call]-- == 1, "a call is answered once");
  }
  if (sound) Check(unanswered == 0, "every valid call gets a reply");
  mirror.Exchange(nullptr);
}

/// The frames of a hostile service to a client that has made its first call.
Wire MakeReplies(FuzzedDataProvider& input) {
  Wire wire;
  while (input.remaining_bytes() > 0 && wire.size() < kMaxWire) {
    binder::Frame frame;
    const int kind = input.ConsumeIntegralInRange(0, 7);
    if (kind < 5) {
      frame.header.type = FrameType::kReply;
      frame.header.call = input.ConsumeIntegralInRange<uint64_t>(0, 2);
      if (input.ConsumeBool()) frame.header.code = input.ConsumeIntegral<uint32_t>();
      if (input.ConsumeBool()) {
        binder::PutObject(&frame, input.ConsumeIntegralInRange<uint64_t>(1, 3), "x.IX");
      }
    } else if (kind < 7) {
      frame.header.type = FrameType::kRelease;
      frame.header.address = input.ConsumeIntegralInRange<uint64_t>(0, 7);
      frame.header.call = input.ConsumeIntegralInRange<uint64_t>(0, 2);
    } else {
      frame = AnyRequest(input, input.ConsumeIntegralInRange<uint64_t>(0, 5));
      frame.header.call = 7;
    }
    Wire bytes = binder::Wire(frame);
    if (input.ConsumeIntegralInRange(0, 3) == 0) CorruptFrame(input, bytes);
    Append(wire, bytes.data(), bytes.size());
  }
  return wire;
}

void AttackClient(FuzzedDataProvider& input, const std::shared_ptr<Mirror>& given) {
  const bool ask_root = input.ConsumeBool();
  const Wire wire = MakeReplies(input);
  SocketPair sockets;
  std::thread service([&wire, fd = sockets.ours.get()] {
    const Peer peer(fd);
    if (peer.ReceiveFrame()) peer.Send(wire);
    peer.EndSending();
    while (peer.ReceiveFrame()) {
    }
  });
  ndk::SpAIBinder root;
  const auto connection =
      Connection::Join(std::move(sockets.theirs), 1 << 1, IEcho::descriptor, &root);
  Check(connection != nullptr, "a client can join");
  if (ask_root) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    connection->QueryRoot(deadline);
  } else {
    // The call gives an object of ours, which the service may call and release.
    const auto echo = IEcho::fromBinder(root);
    std::shared_ptr<IEcho> before;
    Check(echo != nullptr, "a proxy has its interface");
    static_cast<void>(echo->Swap(given, &before));
  }
  root = {};
  service.join();
}

void ExpectWell(Mirror& mirror) {
  SocketPair sockets;
  auto port = std::make_shared<binder::ServicePort>(mirror.asBinder());
  Connection::Accept(std::move(sockets.theirs), binder::Credentials{0, 1}, std::move(port));
  const Peer peer(sockets.ours.get());
  peer.SendGreeting();
  peer.ReceiveGreeting();
  peer.Send(binder::Wire({.header = {.type = FrameType::kRootRequest, .call = 5}}));
  const auto answer = peer.ReceiveFrame();
  Check(answer && answer->type == FrameType::kReply && answer->call == 5,
        "a service answers others all the same");
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kvox::binder::ThreadPool::Get().SetThreadCount(2);
  kvox::binder::ThreadPool::Get().Start();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvox::fuzz;
  static const auto mirror = ndk::SharedRefBase::make<Mirror>();
  static int inputs = 0;
  FuzzedDataProvider input(data, size);
  if (input.ConsumeIntegralInRange(0, 3) == 0) {
    AttackClient(input, mirror);
  } else {
    AttackService(input, *mirror);
  }
  if (++inputs % 64 == 0) ExpectWell(*mirror);
  return 0;
}
