#include "libkvox/audio/receiver.h"

#include <algorithm>
#include <deque>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "kvox/common/mutex.h"
#include "kvox/flight/reader.h"
#include "libkvox/audio/block_timeline.h"
#include "libkvox/audio/packet_format.h"
#include "libkvox/audio/relay_client.h"
#include "libkvox/flight/find_flight.h"
#include "libkvox/flight/incidents.h"
#include "libkvox/model/lookup.h"

namespace kvox::client {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kTick = std::chrono::milliseconds(20);
constexpr auto kTendEvery = std::chrono::milliseconds(100);
constexpr uint64_t kLongestQueueNs = 16'000'000'000;
constexpr uint64_t kShortestNs = 10'000'000;   // so that blocks without a length fill it, too
constexpr uint64_t kPatienceNs = 100'000'000;  // for a record, besides a block

struct RawBlock {
  IKvox::AudioPacket packet;
  uint64_t received_ns = 0;
  int connection = 0;
  bool settled = false;
};

/// From the thread that serves the daemon to the one that takes the blocks.
class Queue {
 public:
  void Push(const RelayClient::Delivery& delivery) {
    const auto block_ns = static_cast<uint64_t>(BlockNs(delivery.packet));
    const MutexLock lock(mutex_);
    if (length_ns_ >= kLongestQueueNs) {
      overflowed_ = true;
      return;
    }
    length_ns_ += std::max(block_ns, kShortestNs);
    blocks_.push_back({delivery.packet, GetTimestampNs(), delivery.connection, delivery.settled});
    came_.NotifyAll();
  }

  /// Everything that is queued; waits for a block until `deadline`.
  std::deque<RawBlock> TakeAll(Clock::time_point deadline) {
    MutexLock lock(mutex_);
    while (blocks_.empty() && came_.WaitUntil(mutex_, deadline)) {
    }
    length_ns_ = 0;
    return std::exchange(blocks_, {});
  }

  /// Whether blocks have been dropped since the last call.
  bool TakeOverflowed() {
    const MutexLock lock(mutex_);
    return std::exchange(overflowed_, false);
  }

 private:
  Mutex mutex_;
  CondVar came_;
  std::deque<RawBlock> blocks_ GUARDED_BY(mutex_);
  uint64_t length_ns_ GUARDED_BY(mutex_) = 0;
  bool overflowed_ GUARDED_BY(mutex_) = false;
};

/// What the flight log says of gaps.
class GapCauses {
 public:
  /// Unknown where the log does not tell.
  GapCause Of(const std::string& stream, uint64_t from_ns, uint64_t to_ns) {
    // A reading tells of all gaps before it: a reader that is behind reads no more often.
    if (read_ns_ <= to_ns || stream != stream_) Read(stream);
    if (!flight_ || flight_->streams.empty()) return {};
    const auto incidents = FindIncidents(*flight_, flight_->streams.front(), from_ns, to_ns + 1);
    const auto worst = std::ranges::max_element(incidents, {}, CountOf);
    if (worst == incidents.end()) return {};
    return {CauseWord(worst->blame.cause), CauseText(worst->blame), worst->blame.evidence};
  }

 private:
  void Read(const std::string& stream) {
    const auto path = FindFlight();
    std::string error;
    stream_ = stream;
    read_ns_ = GetTimestampNs();
    flight_ = path ? flight::ReadFlight(*path, {.stream = stream}, &error) : std::nullopt;
  }

  std::optional<flight::FlightView> flight_;
  std::string stream_;
  uint64_t read_ns_ = 0;
};

}  // namespace

class Receiver::Impl {
 public:
  Impl(Daemon& daemon, const std::string& point, const ReceiverOptions& options)
      : options_(options),
        client_(daemon, point, Use::kReceive,
                [queue = queue_](const auto& delivery) { queue->Push(delivery); }) {
    FollowLog();
  }

  std::optional<Block> Next(std::chrono::milliseconds wait) {
    const auto deadline = Clock::now() + wait;
    for (;;) {
      Tend();
      std::ranges::move(queue_->TakeAll(std::min(deadline, Clock::now() + kTick)),
                        std::back_inserter(raw_));
      while (!raw_.empty()) {
        std::optional<BlockMatcher::Match> match;
        if (!FindPacket(match)) break;
        // One that has not settled, too, or its packet would be taken for the next one's.
        auto block = raw_.front().settled ? ToBlock(std::move(raw_.front()), match) : std::nullopt;
        raw_.pop_front();
        if (block) return block;
      }
      if (over_ && raw_.empty()) throw *over_;
      if (Clock::now() >= deadline) return std::nullopt;
    }
  }

  RelayClient& client() { return client_; }

 private:
  void Tend() {
    const auto now = Clock::now();
    if (over_ || now < tend_at_) return;
    tend_at_ = now + kTendEvery;
    try {
      const int connections = client_.connections();
      client_.Tend();
      if (client_.connections() != connections) FollowLog();
    } catch (const Failure& failure) {
      over_ = failure;
    }
  }

  void FollowLog() {
    const auto path = options_.numbers ? FindFlight() : std::nullopt;
    tail_.reset();
    if (!path || client_.stream().empty()) return;
    tail_.emplace(*path, client_.stream());
    std::vector<flight::PacketRecord> old;
    tail_->Read(old);  // begins with what comes from now on
    matcher_.emplace(static_cast<uint32_t>(CodeOf(client_.relay())));
  }

  /// False when the first block's packet may yet be recorded.
  bool FindPacket(std::optional<BlockMatcher::Match>& match) {
    const RawBlock& first = raw_.front();
    if (!tail_ || first.connection != client_.connections()) return true;
    BlockMatcher::Match found;
    auto result = matcher_->Find(first.received_ns, found);
    if (result == BlockMatcher::Result::kNotYet) {
      std::vector<flight::PacketRecord> records;
      tail_->Read(records);
      matcher_->Add(records);
      result = matcher_->Find(first.received_ns, found);
    }
    switch (result) {
      case BlockMatcher::Result::kFound:
        match = found;
        return true;
      case BlockMatcher::Result::kNever:
        return true;
      case BlockMatcher::Result::kNotYet:
        break;
    }
    const uint64_t patience_ns = static_cast<uint64_t>(BlockNs(first.packet)) + kPatienceNs;
    if (!over_ && GetTimestampNs() - first.received_ns <= patience_ns) return false;
    matcher_->GiveUp(first.received_ns);
    return true;
  }

  /// None for one that has come before. Throws Failure for a format that is unknown.
  std::optional<Block> ToBlock(RawBlock raw, const std::optional<BlockMatcher::Match>& match) {
    const auto format = FormatOf(raw.packet);
    if (!format || raw.packet.data.size() % format->FrameSize() != 0) {
      throw Failure(kRefused,
                    client_.point() + " sends audio of an unknown format; see kvoxd's log");
    }
    Block block{.format = *format,
                .arrived_ns = match ? match->record.arrived_ns : raw.received_ns};
    const auto bytes = std::as_bytes(std::span(raw.packet.data));
    block.data.assign(bytes.begin(), bytes.end());
    const bool restarted = raw.connection != connection_;
    if (restarted) timeline_.Restart();
    connection_ = raw.connection;
    const auto place = timeline_.Next(match, raw.received_ns, block.frames(), format->sample_rate);
    if (place.repeated) return std::nullopt;
    if (match) {
      block.number = match->record.number;
      block.stamp = match->record.stamp;
    }
    if (last_ns_ != 0 && place.missing > 0) {
      block.missing = place.missing;
      block.estimated = place.estimated;
      block.cause = Explain(restarted, block.arrived_ns);
    }
    last_ns_ = block.arrived_ns;
    return block;
  }

  GapCause Explain(bool restarted, uint64_t at_ns) {
    if (!options_.causes) return {};
    if (restarted) return {"daemon_restarted", "kvoxd was restarted"};
    if (queue_->TakeOverflowed()) return {"queue_full", "this client took too long with the audio"};
    return client_.connected() ? causes_.Of(client_.stream(), last_ns_, at_ns) : GapCause();
  }

  const ReceiverOptions options_;
  /// A callback may still be running after the client has left.
  const std::shared_ptr<Queue> queue_ = std::make_shared<Queue>();
  RelayClient client_;
  std::optional<flight::PacketTail> tail_;
  std::optional<BlockMatcher> matcher_;
  BlockTimeline timeline_;
  GapCauses causes_;
  std::deque<RawBlock> raw_;
  std::optional<Failure> over_;
  Clock::time_point tend_at_ = {};
  int connection_ = 1;
  uint64_t last_ns_ = 0;  // of the last block
};

Receiver::Receiver(Daemon& daemon, const std::string& point, const ReceiverOptions& options)
    : impl_(std::make_unique<Impl>(daemon, point, options)) {}

Receiver::~Receiver() = default;

std::optional<Block> Receiver::Next(std::chrono::milliseconds wait) {
  return impl_->Next(wait);
}

void Receiver::Leave() {
  impl_->client().Leave();
}

const std::string& Receiver::point() const {
  return impl_->client().point();
}

bool Receiver::flows() const {
  return impl_->client().flows();
}

}  // namespace kvox::client
