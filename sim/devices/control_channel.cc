#include "sim/devices/control_channel.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "sim/faults/reply_faults.h"

namespace kvox::sim {
namespace {

/// How long the rest of a record may take; the daemon waits 500 ms for its reply.
constexpr uint64_t kPartialNs = 100'000'000;
/// Limit of replies that a daemon has not read, and of replies that are not due yet; more are
/// dropped.
constexpr ptrdiff_t kMaxReplies = 64;

}  // namespace

ControlChannel::ControlChannel(event_base* base, CommandHandler& handler, FaultPlan& plan,
                               std::function<void()> on_commands)
    : base_(base),
      handler_(handler),
      plan_(plan),
      on_commands_(std::move(on_commands)),
      splitter_([this](std::span<std::byte> record) { Handle(record); }),
      partial_timeout_(base, -1, 0, [this] { GiveUpPartial(); }),
      due_(base, -1, 0, [this] { Flush(); }) {}

std::string ControlChannel::Open() {
  terminal_ = OpenRawTerminal();
  const int master = terminal_.master.get();
  readable_ = std::make_unique<Event>(base_, master, EV_READ | EV_PERSIST, [this] { Read(); });
  writable_ = std::make_unique<Event>(base_, master, EV_WRITE, [this] { Flush(); });
  readable_->Add();
  return terminal_.path;
}

void ControlChannel::Close() {
  readable_.reset();
  writable_.reset();
  partial_timeout_.Remove();
  due_.Remove();
  splitter_.DropPartial();
  replies_dropped_ += replies_.size();
  replies_.clear();
  terminal_ = {};
}

void ControlChannel::Read() {
  std::array<std::byte, 4096> bytes;
  const ssize_t size = read(terminal_.master.get(), bytes.data(), bytes.size());
  if (size <= 0) return;
  splitter_.Feed(std::span(bytes).first(static_cast<size_t>(size)));
  if (splitter_.partial()) {
    partial_timeout_.AddIn(kPartialNs);
  } else {
    partial_timeout_.Remove();
  }
  on_commands_();
}

void ControlChannel::GiveUpPartial() {
  splitter_.GiveUpPartial();
  on_commands_();
}

void ControlChannel::Handle(std::span<std::byte> record) {
  const uint64_t now = GetTimestampNs();
  const auto faults = plan_.OnCommand(CommandHeader(record).opcode, last_reply_.empty(), now);
  const auto refusal = std::ranges::find(faults, FaultKind::kReplyStatus, &FaultConfig::kind);
  handler_.Handle(record, refusal == faults.end() ? std::nullopt : std::optional(refusal->status));
  for (Reply& reply : CorruptReply(faults, record, last_reply_)) {
    const auto waits_alike = [&](const auto& other) {
      return (other.first > now) == (reply.delay_ns > 0);
    };
    if (std::ranges::count_if(replies_, waits_alike) == kMaxReplies) {
      ++replies_dropped_;
    } else {
      replies_.emplace(now + reply.delay_ns, std::move(reply.bytes));
    }
  }
  last_reply_.assign(record.begin(), record.end());
  Flush();
}

/// One write per reply. If the terminal takes only part of it, the rest is sent first the next
/// time.
void ControlChannel::Flush() {
  const uint64_t now = GetTimestampNs();
  while (!replies_.empty()) {
    auto& [due, reply] = *replies_.begin();
    if (due > now) return due_.AddIn(due - now);
    const ssize_t written = write(terminal_.master.get(), reply.data(), reply.size());
    if (written > 0) reply.erase(reply.begin(), reply.begin() + written);
    if (!reply.empty()) {
      writable_->Add();
      return;
    }
    replies_.erase(replies_.begin());
  }
}

}  // namespace kvox::sim
