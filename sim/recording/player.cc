#include "sim/recording/player.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "kvox/common/device_names.h"
#include "kvox/common/kvox_packet.h"
#include "kvox/common/kvox_utils.h"
#include "sim/devices/raw_terminal.h"
#include "sim/devices/record_splitter.h"

namespace kvox::sim {
namespace {

constexpr int64_t kPatienceNs = 1'000'000'000;  // for a command or a reader that the recording has
constexpr uint64_t kReaderPollNs = 2'000'000;
constexpr int64_t kLateNs = 2'000'000;         // what a daemon may take for trouble of the stream
constexpr uint64_t kSettleNs = 1'000'000'000;  // after the end, for what the daemon still sends
constexpr mode_t kRights = 07777;

int64_t NowNs() {
  return static_cast<int64_t>(GetTimestampNs());
}

/// Without a rate the daemon does not judge when the packet comes.
void RemoveRate(std::vector<std::byte>& packet) {
  KvoxPacketHeader header;
  if (packet.size() < sizeof header) return;
  std::memcpy(&header, packet.data(), sizeof header);
  if (header.magic != kPacketMagic) return;
  header.format.sample_rate = 0;
  std::memcpy(packet.data(), &header, sizeof header);
}

}  // namespace

/// The control device.
class Player::Control {
 public:
  Control(event_base* base, RecordedReplies& replies, std::function<void(size_t)> on_match)
      : replies_(replies),
        on_match_(std::move(on_match)),
        terminal_(OpenRawTerminal()),
        splitter_([this](std::span<std::byte> record) { Take(record); }),
        readable_(base, terminal_.master.get(), EV_READ | EV_PERSIST, [this] { Read(); }),
        due_(base, -1, 0, [this] { Send(); }) {
    readable_.Add();
  }

  const std::string& path() const { return terminal_.path; }

 private:
  void Read() {
    std::array<std::byte, 4096> bytes;
    const ssize_t size = read(terminal_.master.get(), bytes.data(), bytes.size());
    if (size > 0) splitter_.Feed(std::span(bytes).first(static_cast<size_t>(size)));
  }

  void Take(std::span<const std::byte> record) {
    RecordedReplies::Match match = replies_.Take(record);
    for (Reply& reply : match.replies) {
      waiting_.emplace(GetTimestampNs() + reply.after_ns, std::move(reply.bytes));
    }
    Send();
    if (match.exchange) on_match_(*match.exchange);
  }

  void Send() {
    const uint64_t now = GetTimestampNs();
    while (!waiting_.empty()) {
      const auto& [due, bytes] = *waiting_.begin();
      if (due > now) return due_.AddIn(due - now);
      // A terminal takes a record whole, or the daemon has long ceased to read.
      [[maybe_unused]] const ssize_t written =
          write(terminal_.master.get(), bytes.data(), bytes.size());
      waiting_.erase(waiting_.begin());
    }
  }

  RecordedReplies& replies_;
  const std::function<void(size_t)> on_match_;
  RawTerminal terminal_;
  RecordSplitter splitter_;
  std::multimap<uint64_t, std::vector<std::byte>> waiting_;  // replies by the time they are due
  Event readable_;
  Event due_;
};

/// An inject device: keeps what is written into it.
class Player::InjectSink {
 public:
  InjectSink(event_base* base, const std::filesystem::path& path, std::vector<Piece>& taken)
      : taken_(taken),
        fd_(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW)),
        readable_(base, fd_.get(), EV_READ | EV_PERSIST, [this] { Read(); }) {
    if (!fd_.valid() || !readable_.Add()) {
      throw std::runtime_error(fmt::format("{}: cannot be opened ({}); is somebody else using {}?",
                                           path.string(), std::strerror(errno),
                                           path.parent_path().string()));
    }
  }
  ~InjectSink() { Read(); }
  InjectSink(const InjectSink&) = delete;
  InjectSink& operator=(const InjectSink&) = delete;

 private:
  void Read() {
    std::array<std::byte, kPacketMaxSize> bytes;
    ssize_t size = 0;
    while ((size = read(fd_.get(), bytes.data(), bytes.size())) > 0) {
      taken_.push_back({{bytes.begin(), bytes.begin() + size}, static_cast<size_t>(size)});
    }
  }

  std::vector<Piece>& taken_;
  const UniqueFd fd_;
  Event readable_;
};

Player::Player(event_base* base, const std::filesystem::path& directory, const Script& script,
               double speed, std::function<void()> on_end)
    : base_(base),
      directory_(directory),
      script_(script),
      speed_(speed),
      on_end_(std::move(on_end)),
      replies_(script),
      start_ns_(NowNs()),
      next_due_(base, -1, 0, [this] { Play(); }) {
  next_due_.AddIn(0);
}

Player::~Player() = default;

Sent Player::Finish(Counts& counts) {
  if (error_) std::rethrow_exception(error_);
  injects_.clear();
  counts = counts_;
  counts.modelled = replies_.modelled();
  return {replies_.commands(), std::move(injected_), speed_ == 1};
}

/// Of the recording's time: when that is now.
int64_t Player::TimeOf(uint64_t at_ns) const {
  return start_ns_ + static_cast<int64_t>(static_cast<double>(at_ns) / speed_);
}

/// The loop passes no exceptions on.
void Player::Play() {
  try {
    PlayWhatIsDue();
  } catch (const std::runtime_error&) {
    error_ = std::current_exception();
    on_end_();
  }
}

/// What the recording has the daemon do first is waited for.
void Player::PlayWhatIsDue() {
  for (; next_ < script_.steps.size(); ++next_) {
    const Step& step = script_.steps[next_];
    const int64_t now = NowNs();
    const int64_t due = TimeOf(step.at_ns);
    if (due > now) return next_due_.AddIn(static_cast<uint64_t>(due - now));
    if (!IsReady(step)) {
      if (waiting_since_ns_ == 0) waiting_since_ns_ = now;
      if (!IsSilent(step) && now - waiting_since_ns_ < kPatienceNs) {
        return next_due_.AddIn(kReaderPollNs);
      }
      GiveUp(step);
    } else {
      if (waiting_since_ns_ == 0 && now - due > kLateNs) ++counts_.late;
      Do(step);
    }
    if (waiting_since_ns_ != 0) start_ns_ += NowNs() - waiting_since_ns_;
    waiting_since_ns_ = 0;
  }
  if (ended_) return on_end_();
  ended_ = true;
  next_due_.AddIn(kSettleNs);
}

bool Player::IsReady(const Step& step) {
  if (step.kind == Step::Kind::kExpect) return replies_.IsUsed(step.number);
  if (step.kind != Step::Kind::kDeliver) return true;
  const auto writer = tapouts_.find(step.node);
  if (writer == tapouts_.end() || writer->second.absent) return true;
  if (writer->second.pipe.hung_up()) writer->second.pipe.Close();
  return writer->second.pipe.HasReader();
}

/// Whether there is nobody who might send a command.
bool Player::IsSilent(const Step& step) const {
  return step.kind == Step::Kind::kExpect && heard_at_give_up_ == replies_.commands().size();
}

void Player::GiveUp(const Step& step) {
  if (step.kind == Step::Kind::kExpect) {
    replies_.GiveUp(step.number);
    ++counts_.missed;
    heard_at_give_up_ = replies_.commands().size();
  } else {
    tapouts_.at(step.node).absent = true;  // the next deliveries do not wait
    ++counts_.unheard;
  }
}

void Player::Do(const Step& step) {
  switch (step.kind) {
    case Step::Kind::kChange:
      if (step.event == NodeEvent::kLeft) return Remove(step.node);
      return step.event == NodeEvent::kArrived ? Create(step.node) : SetRights(step);
    case Step::Kind::kExpect:
      return;
    case Step::Kind::kDeliver:
      return Deliver(step);
    case Step::Kind::kEnd:
      if (const auto found = tapouts_.find(step.node); found != tapouts_.end()) {
        found->second.pipe.Close();
      }
  }
}

void Player::Deliver(const Step& step) {
  const auto found = tapouts_.find(step.node);
  const bool has_reader = found != tapouts_.end() && found->second.pipe.HasReader();
  if (found != tapouts_.end() && found->second.pipe.hung_up()) found->second.pipe.Close();
  if (!has_reader) {
    ++counts_.unheard;
    return;
  }
  found->second.absent = false;
  std::vector<std::byte> bytes = Whole(step.piece);
  if (speed_ != 1) RemoveRate(bytes);
  if (found->second.pipe.Offer(bytes) != PacketPort::Result::kSent) ++counts_.unheard;
}

/// Only of nodes that were made here. This side needs its own.
void Player::SetRights(const Step& step) {
  mode_t rights = step.number & kRights;
  if (tapouts_.contains(step.node)) {
    rights |= S_IWUSR;
  } else if (injects_.contains(step.node)) {
    rights |= S_IRUSR;
  } else {
    return;
  }
  chmod(directory_.PathOf(step.node).c_str(), rights);
}

void Player::Create(const std::string& node) {
  Remove(node);
  if (node == kControlDevice) {
    control_ =
        std::make_unique<Control>(base_, replies_, [this](size_t exchange) { OnMatch(exchange); });
    directory_.Create({DeviceNode::Kind::kSymbolicLink, node, control_->path()});
  } else if (node.starts_with(kTapOutPrefix)) {
    directory_.Create({DeviceNode::Kind::kFifo, node});
    tapouts_.emplace(node, TapOut{FifoWriter(directory_.PathOf(node))});
  } else if (node.starts_with(kInjectPrefix)) {
    directory_.Create({DeviceNode::Kind::kFifo, node});
    injects_[node] = std::make_unique<InjectSink>(base_, directory_.PathOf(node), injected_[node]);
  } else {
    directory_.Create({DeviceNode::Kind::kEmptyFile, node});
  }
}

void Player::Remove(const std::string& node) {
  directory_.Remove(node);
  if (node == kControlDevice) control_.reset();
  tapouts_.erase(node);
  injects_.erase(node);
}

/// A command that comes earlier than in the recording takes the time with it, unless there is audio
/// to deliver before.
void Player::OnMatch(size_t exchange) {
  const auto begin = script_.steps.begin() + static_cast<ptrdiff_t>(next_);
  const auto expect = std::find_if(begin, script_.steps.end(), [&](const Step& step) {
    return step.kind == Step::Kind::kExpect && step.number == exchange;
  });
  const auto is_audio = [](const Step& step) { return step.kind == Step::Kind::kDeliver; };
  if (expect != script_.steps.end() && std::none_of(begin, expect, is_audio)) {
    start_ns_ -= std::max<int64_t>(0, TimeOf(expect->at_ns) - NowNs());
  }
  next_due_.AddIn(0);
}

}  // namespace kvox::sim
