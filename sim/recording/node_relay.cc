#include "sim/recording/node_relay.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "kvox/common/device_names.h"
#include "sim/devices/packet_port.h"
#include "sim/devices/raw_terminal.h"
#include "sim/recording/flow.h"
#include "sim/recording/header_keeper.h"

namespace kvox::sim {
namespace {

constexpr uint64_t kRetryNs = 20'000'000;  // of what the co-processor's side refuses
constexpr uint64_t kPollNs = 200'000'000;  // for a reader
constexpr int kOpen = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

std::runtime_error Unusable(const std::filesystem::path& path) {
  return std::runtime_error(fmt::format("{}: cannot be opened ({}); its node is not mirrored",
                                        path.string(), std::strerror(errno)));
}

/// Notes bytes of a data device.
class DataNotes {
 public:
  DataNotes(RecordingFile& file, std::string node, bool to_coprocessor, bool audio)
      : file_(file), node_(std::move(node)), to_coprocessor_(to_coprocessor), audio_(audio) {}

  void Add(std::span<const std::byte> bytes) {
    if (audio_) return Add({bytes.begin(), bytes.end()}, bytes.size());
    for (auto& part : keeper_.Take(bytes)) Add(std::move(part.kept), part.length);
  }
  void Reset() { keeper_.Reset(); }

 private:
  void Add(std::vector<std::byte> bytes, size_t length) {
    file_.Add({.node = node_,
               .to_coprocessor = to_coprocessor_,
               .length = static_cast<uint32_t>(length),
               .bytes = std::move(bytes)});
  }

  RecordingFile& file_;
  const std::string node_;
  const bool to_coprocessor_;
  const bool audio_;
  HeaderKeeper keeper_;
};

/// The node "kvo": only whether it is there counts.
class FileRelay : public NodeRelay {
 public:
  FileRelay(const Context& context, const std::string& name) : NodeRelay(context, name) {
    context.to.Create({DeviceNode::Kind::kEmptyFile, name});
  }
};

class ControlRelay : public NodeRelay {
 public:
  ControlRelay(const Context& context, const std::string& name)
      : NodeRelay(context, name),
        device_(open(FromPath().c_str(), O_RDWR | kOpen)),
        terminal_(OpenRawTerminal()) {
    if (!device_.valid()) throw Unusable(FromPath());
    const auto end = [this](int error) {
      Note(NodeEvent::kError, static_cast<uint32_t>(error));
      context_.on_end(name_);
    };
    commands_.emplace(context.base, terminal_.master.get(), device_.get(),
                      Flow::Callbacks{[this](auto bytes) { NoteBytes(true, bytes); }, end});
    replies_.emplace(context.base, device_.get(), terminal_.master.get(),
                     Flow::Callbacks{[this](auto bytes) { NoteBytes(false, bytes); }, end});
    context.to.Create({DeviceNode::Kind::kSymbolicLink, name, terminal_.path});
  }

 private:
  void NoteBytes(bool to_coprocessor, std::span<const std::byte> bytes) {
    context_.file.Add({.node = name_,
                       .to_coprocessor = to_coprocessor,
                       .length = static_cast<uint32_t>(bytes.size()),
                       .bytes = {bytes.begin(), bytes.end()}});
  }

  const UniqueFd device_;
  RawTerminal terminal_;
  std::optional<Flow> commands_;
  std::optional<Flow> replies_;
};

/// Open at the co-processor's side while the daemon has it open.
class TapOutRelay : public NodeRelay {
 public:
  TapOutRelay(const Context& context, const std::string& name)
      : NodeRelay(context, name),
        notes_(context.file, name, false, context.audio),
        again_(context.base, -1, 0, [this] { OpenOrClose(); }) {
    context.to.Create({DeviceNode::Kind::kFifo, name});
  }

  void OnDaemon() override { again_.AddIn(0); }

 private:
  /// True while the daemon has the other end open.
  bool HasReader() {
    if (!pipe_.valid()) {
      pipe_ = UniqueFd(open(ToPath().c_str(), O_WRONLY | O_NOFOLLOW | kOpen));
      if (!pipe_.valid()) return false;
      fcntl(pipe_.get(), F_SETPIPE_SZ, kPipeSize);
      Note(NodeEvent::kOpened);
      return true;
    }
    pollfd pipe{.fd = pipe_.get(), .events = 0, .revents = 0};
    return poll(&pipe, 1, 0) <= 0;
  }

  void OpenOrClose() {
    const bool was_open = pipe_.valid();
    if (ended_ || !HasReader()) {
      if (was_open) Note(NodeEvent::kClosed);
      // Another reader may be there; at the end of the device the daemon sees one, too. One that
      // waits in open() is not told of.
      again_.AddIn(!was_open ? kPollNs : ended_ ? kRetryNs : 0);
      return Close();
    }
    if (flow_) return;
    device_ = UniqueFd(open(FromPath().c_str(), O_RDONLY | kOpen));
    if (!device_.valid()) {
      NoteError(errno);
      return again_.AddIn(kRetryNs);
    }
    error_ = 0;
    flow_.emplace(context_.base, device_.get(), pipe_.get(),
                  Flow::Callbacks{[this](auto bytes) { notes_.Add(bytes); },
                                  [this](int error) { OnEnd(error); }});
    // A write-only descriptor becomes readable only when its reader is gone.
    hang_up_.emplace(context_.base, pipe_.get(), EV_READ, [this] { again_.AddIn(0); });
    hang_up_->Add();
  }

  void OnEnd(int error) {
    if (error != EPIPE) Note(NodeEvent::kError, static_cast<uint32_t>(error));
    ended_ = true;
    again_.AddIn(0);
  }

  void Close() {
    ended_ = false;
    hang_up_.reset();
    flow_.reset();
    device_ = {};
    pipe_ = {};
    notes_.Reset();
  }

  DataNotes notes_;
  bool ended_ = false;
  UniqueFd pipe_;
  UniqueFd device_;
  std::optional<Flow> flow_;
  std::optional<Event> hang_up_;
  Event again_;
};

/// Open at the co-processor's side as long as that takes it, and only then at the daemon's.
class InjectRelay : public NodeRelay {
 public:
  InjectRelay(const Context& context, const std::string& name)
      : NodeRelay(context, name),
        notes_(context.file, name, true, context.audio),
        again_(context.base, -1, 0, [this] { Open(); }) {
    context.to.Create({DeviceNode::Kind::kFifo, name});
    Open();
  }

 private:
  void Open() {
    flow_.reset();
    device_ = UniqueFd(open(FromPath().c_str(), O_WRONLY | kOpen));
    // Both ways, so that a writer finds a reader and the reader no end of file.
    if (device_.valid() && !pipe_.valid()) {
      pipe_ = UniqueFd(open(ToPath().c_str(), O_RDWR | O_NOFOLLOW | kOpen));
    }
    if (!device_.valid() || !pipe_.valid()) {
      NoteError(errno);
      pipe_ = {};  // the daemon is refused, too
      return again_.AddIn(kRetryNs);
    }
    fcntl(device_.get(), F_SETPIPE_SZ, kPipeSize);
    error_ = 0;
    flow_.emplace(context_.base, pipe_.get(), device_.get(),
                  Flow::Callbacks{[this](auto bytes) { notes_.Add(bytes); },
                                  [this](int error) {
                                    NoteError(error);
                                    pipe_ = {};
                                    again_.AddIn(kRetryNs);
                                  }});
  }

  DataNotes notes_;
  UniqueFd pipe_;
  UniqueFd device_;
  std::optional<Flow> flow_;
  Event again_;
};

}  // namespace

/// Once, however often it comes again.
void NodeRelay::NoteError(int error) {
  if (error != error_) Note(NodeEvent::kError, static_cast<uint32_t>(error));
  error_ = error;
}

void NodeRelay::Note(NodeEvent event, uint32_t number) {
  context_.file.Add({.node = name_, .event = event, .number = number});
}

std::unique_ptr<NodeRelay> MakeRelay(const NodeRelay::Context& context, const std::string& name) {
  if (name == kControlDevice) return std::make_unique<ControlRelay>(context, name);
  if (name.starts_with(kTapOutPrefix)) return std::make_unique<TapOutRelay>(context, name);
  if (name.starts_with(kInjectPrefix)) return std::make_unique<InjectRelay>(context, name);
  return std::make_unique<FileRelay>(context, name);
}

}  // namespace kvox::sim
