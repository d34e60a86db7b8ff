#include "client/audio/relay_session.h"

#include <android/binder_process.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <utility>

#include "client/calls/call_deadline.h"
#include "client/output/standard_streams.h"
#include "client/system/signals.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"

namespace kvox::client {
namespace {

constexpr timespec kTurn = {.tv_sec = 0, .tv_nsec = 50'000'000};
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kHintAfterNs = 3 * kNsPerSecond;
constexpr int64_t kPatienceNs = 30 * kNsPerSecond;  // for audio that has not begun
constexpr int64_t kSilenceNs = 5 * kNsPerSecond;    // after which audio has ended
constexpr int64_t kProgressNs = kNsPerSecond / 5;

/// For a daemon that may have stopped: interrupts are held while it is told that we leave.
constexpr std::chrono::milliseconds kPatienceAtEnd{2000};

constexpr std::initializer_list<int> kInterrupts = {SIGINT, SIGTERM, SIGHUP};

}  // namespace

std::optional<StreamFormat> FormatOf(const IKvox::AudioPacket& packet) {
  const auto encoding = static_cast<uint8_t>(packet.format);
  StreamFormat format = {.sample_rate = SampleRateOfCode(static_cast<uint8_t>(packet.sampleRate)),
                         .channels = static_cast<uint8_t>(packet.numChannels),
                         .bits = (static_cast<uint8_t>(packet.bitsPerSample) + 1u) * 8,
                         .encoding = Kvox::DataFormat{encoding}};
  const bool known = format.sample_rate != 0 && format.channels != 0 && format.bits <= 32 &&
                     encoding < kDataFormatCount;
  return known ? std::optional(format) : std::nullopt;
}

int64_t BlockNs(const IKvox::AudioPacket& packet) {
  const auto format = FormatOf(packet);
  if (!format) return 0;
  const auto frames = static_cast<int64_t>(packet.data.size() / format->FrameSize());
  return frames * kNsPerSecond / format->sample_rate;
}

class RelaySession::Callback : public IKvox::BnReceiveAudioCallback {
 public:
  explicit Callback(OnBlock on_block) : on_block_(std::move(on_block)) {}

  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override {
    last_block_ns_ = NowNs();
    on_block_(packet);
    return ndk::ScopedAStatus::ok();
  }

  /// When the last block came; 0 before the first.
  int64_t last_block_ns() const { return last_block_ns_; }

 private:
  const OnBlock on_block_;
  std::atomic<int64_t> last_block_ns_ = 0;
};

RelaySession::RelaySession(std::shared_ptr<IKvox> kvox, int32_t processor, std::string name,
                           std::string doing, std::chrono::milliseconds wait)
    : kvox_(std::move(kvox)),
      processor_(processor),
      name_(std::move(name)),
      doing_(std::move(doing)),
      wait_(wait) {}

void RelaySession::BlockInterrupts() {
  BlockSignals(kInterrupts);
}

bool RelaySession::Register(const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback,
                            std::chrono::milliseconds wait, IKvox::CommandResult& result) {
  const CallDeadline deadline("RegisterReceiveAudioCallback", static_cast<int>(StayEnd::kTimedOut),
                              wait);
  return kvox_->RegisterReceiveAudioCallback(processor_, callback, &result).isOk();
}

StayEnd RelaySession::Stay(OnBlock on_block, const OnTurn& on_turn) {
  auto callback = ndk::SharedRefBase::make<Callback>(std::move(on_block));
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  IKvox::CommandResult result;
  if (!Register(callback, wait_, result)) return StayEnd::kNoDaemon;
  if (result.status != IKvox::CommandStatus::OK) {
    fprintf(stderr, "kvoxctl: there is no processor %s; 'kvoxctl processor list' shows all\n",
            name_.c_str());
    return StayEnd::kRefused;
  }
  fprintf(stderr, "kvoxctl: %s; Ctrl-C ends it\n", doing_.c_str());
  // From here on the relay alone holds the callback.
  const std::weak_ptr<Callback> registered = callback;
  callback.reset();
  const auto unregister = [&] {
    EndProgress();
    if (!registered.expired()) Register(nullptr, std::min(wait_, kPatienceAtEnd), result);
  };
  StayEnd end;
  try {
    end = Turns(registered, on_turn);
  } catch (...) {
    unregister();
    throw;
  }
  unregister();
  on_turn();  // what came in the meantime
  return end;
}

StayEnd RelaySession::Turns(const std::weak_ptr<Callback>& registered, const OnTurn& on_turn) {
  const sigset_t signals = NotIgnored(kInterrupts);
  const int64_t begin_ns = NowNs();
  bool hinted = false;
  for (;;) {
    if (on_turn()) return StayEnd::kDone;
    if (sigtimedwait(&signals, nullptr, &kTurn) > 0) return StayEnd::kDone;
    const auto callback = registered.lock();  // before the next line: a dead daemon lets go, too
    if (!AIBinder_isAlive(kvox_->asBinder().get())) return StayEnd::kNoDaemon;
    if (!callback) {
      EndProgress();
      fprintf(stderr,
              "kvoxctl: %s has let go of this client: another one took it over, or it was deleted; "
              "'kvoxctl processor list' shows whether it is there\n",
              name_.c_str());
      return StayEnd::kMissedBlocks;
    }
    const int64_t now_ns = NowNs();
    const int64_t last_ns = callback->last_block_ns();
    if (last_ns != 0 && now_ns - last_ns > kSilenceNs) {
      EndProgress();
      fprintf(stderr,
              "kvoxctl: no more audio comes from %s: it was disabled or disconnected, or its tap "
              "point or I/O was stopped; 'kvoxctl graph' shows its path\n",
              name_.c_str());
      return StayEnd::kMissedBlocks;
    }
    if (last_ns == 0 && !hinted && now_ns - begin_ns > kHintAfterNs) {
      hinted = true;
      fprintf(stderr,
              "kvoxctl: no audio comes from %s yet; it has to be enabled and connected, its tap "
              "point and I/O on\n",
              name_.c_str());
    }
    if (last_ns == 0 && now_ns - begin_ns > kPatienceNs) {
      fprintf(stderr, "kvoxctl: no audio came from %s; gave up; 'kvoxctl graph' shows its path\n",
              name_.c_str());
      return StayEnd::kRefused;
    }
  }
}

void PrintStay(const char* verb, const StayFigures& figures, bool json) {
  const auto blocks = static_cast<unsigned long long>(figures.blocks);
  const auto missed = static_cast<unsigned long long>(figures.missed);
  if (json) {
    PrintOut(FormatText<128>(
        "{\"schema\": 1, \"seconds\": %.3f, \"blocks\": %llu, \"missed_blocks\": %llu}\n",
        figures.seconds, blocks, missed));
  } else {
    PrintOut(FormatText<128>("%s %.3f s in %llu blocks, %llu missed\n", verb, figures.seconds,
                             blocks, missed));
  }
}

void ShowProgress(double seconds, uint64_t missed) {
  static const bool terminal = isatty(STDERR_FILENO) == 1;
  static int64_t shown_ns = 0;
  const int64_t now_ns = NowNs();
  if (!terminal || now_ns - shown_ns < kProgressNs) return;
  shown_ns = now_ns;
  const auto tenths = static_cast<unsigned>(seconds * 10);
  fprintf(stderr, "\r%u:%02u.%u  %llu missed ", tenths / 600, tenths / 10 % 60, tenths % 10,
          static_cast<unsigned long long>(missed));
}

void EndProgress() {
  if (isatty(STDERR_FILENO) == 1) fputs("\r\x1b[K", stderr);
}

int64_t NowNs() {
  using std::chrono::steady_clock;
  return std::chrono::nanoseconds(steady_clock::now().time_since_epoch()).count();
}

}  // namespace kvox::client
