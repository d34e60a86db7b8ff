// A stay as the client of a relay processor: what record and play have in common.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/audio/sound_file.h"

namespace kvox::client {

using aidl::kvox::IKvox;

/// The format that a packet's codes name; none when they name none.
std::optional<StreamFormat> FormatOf(const IKvox::AudioPacket& packet);

/// How long a packet's audio lasts, in nanoseconds; 0 when it holds no whole frame or its format is
/// unknown.
int64_t BlockNs(const IKvox::AudioPacket& packet);

/// What becomes of a stay, and the program's exit status for it.
enum class StayEnd : int {
  kDone = 0,
  kRefused = 1,       // the daemon refused, or no audio came
  kWrongUsage = 2,    // the file does not fit
  kNoDaemon = 3,      // it has gone
  kTimedOut = 6,      // it does not answer
  kMissedBlocks = 7,  // audio was missed, or ended early
};

/// Registers as a relay's client and stays one until the work is done, the user interrupts, the
/// audio ends, another client takes the relay over or the daemon goes. It unregisters before it
/// leaves, for to die as a registered client would end the relay's use case; but not once the relay
/// has let go of it, for that would end the other client's audio.
class RelaySession {
 public:
  /// A block has come; on the thread that serves the daemon, which waits for it half a block's
  /// time.
  using OnBlock = std::function<void(const IKvox::AudioPacket&)>;
  /// Called on the main thread, several times a second. True when the work is done.
  using OnTurn = std::function<bool()>;

  /// `doing` is said once registered: "recording from art0". `wait` is the longest for the daemon's
  /// answer to that.
  RelaySession(std::shared_ptr<IKvox> kvox, int32_t processor, std::string name, std::string doing,
               std::chrono::milliseconds wait);

  /// Keeps interrupts from ending the process at once. To be called before any thread starts. What
  /// the process was told to ignore, as nohup does, it goes on ignoring.
  static void BlockInterrupts();

  /// Answers kDone when the work is done or the user has interrupted.
  StayEnd Stay(OnBlock on_block, const OnTurn& on_turn);

 private:
  class Callback;

  bool Register(const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback,
                std::chrono::milliseconds wait, IKvox::CommandResult& result);
  StayEnd Turns(const std::weak_ptr<Callback>& registered, const OnTurn& on_turn);

  const std::shared_ptr<IKvox> kvox_;
  const int32_t processor_;
  const std::string name_;
  const std::string doing_;
  const std::chrono::milliseconds wait_;
};

/// How a stay went.
struct StayFigures {
  double seconds = 0;
  uint64_t blocks = 0;
  uint64_t missed = 0;
};

/// "recorded 12.300 s in 123 blocks, 0 missed", or the same as a JSON object.
void PrintStay(const char* verb, const StayFigures& figures, bool json);

/// "0:12  3 missed" on a terminal, over itself; nothing elsewhere. Main thread.
void ShowProgress(double seconds, uint64_t missed);

/// Ends the progress line.
void EndProgress();

/// Monotonic nanoseconds.
int64_t NowNs();

}  // namespace kvox::client
