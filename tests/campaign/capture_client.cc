// A client that captures audio into files, which it checks and removes.

#include <fmt/format.h>

#include <fstream>
#include <vector>

#include "kvox/common/device_names.h"
#include "kvox/common/wav_header.h"
#include "tests/campaign/workers.h"

namespace kvox::campaign {
namespace {

constexpr Ms kCaptureTime{2000};

class CaptureClient : public Worker {
 public:
  CaptureClient(RunContext& run, const Stream& stream, const std::filesystem::path& directory)
      : Worker(run, "capture of " + stream.TapName()) {
    for (const char* kind : {kTapOutBufferPrefix, kInjectBufferPrefix}) {
      const std::string buffer = fmt::format("{}{}", kind, stream.buffer);
      captures_.push_back({buffer, directory / (buffer + ".wav")});
    }
  }

  void Step(std::mt19937&) override {
    if (!capturing_) {
      Start();
    } else if (Disturbed() || Clock::now() - begin_ > kCaptureTime) {
      Stop();
    }
  }
  void RestoreBaseline() override {
    if (capturing_) Stop();
  }
  Ms Interval() const override { return Ms(50); }

 private:
  struct Capture {
    std::string buffer;
    std::string file;
  };

  /// Whether the devices may have gone, and the captures with them.
  bool Disturbed() const { return run_.faults.epoch() != epoch_; }

  CommandReply Debug(const std::vector<std::string>& words) {
    return run_.daemon.Call("Debug", &IKvox::Debug, words);
  }

  void Start() {
    epoch_ = run_.faults.epoch();
    if (FaultClock::StateIn(epoch_) == FaultState::kActive) return;
    begin_ = Clock::now();
    capturing_ = true;
    for (const Capture& capture : captures_) {
      client_.Query("Debug capture start", [&] {
        return Debug({"capture", "start", capture.buffer, capture.file});
      });
    }
  }

  /// Replies and files from a time in which devices came and went prove nothing.
  void Stop() {
    for (const Capture& capture : captures_) {
      const auto stop = [&] { return Debug({"capture", "stop", capture.buffer}); };
      const CommandReply reply = Disturbed() ? stop() : client_.Query("Debug capture stop", stop);
      if (reply.ok() && !Disturbed()) CheckFile(capture.file);
    }
    std::error_code ignored;
    for (const Capture& capture : captures_) std::filesystem::remove(capture.file, ignored);
    capturing_ = false;
  }

  /// The header is written last. Without a packet there is none.
  void CheckFile(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (!error && size == 0) return;
    WavHeader header{};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
    if (error || size < sizeof header || header.data_size != size - sizeof header) {
      run_.failures.Add("the capture {} has {} bytes, its header says {} bytes of audio", path,
                        error ? 0 : size, header.data_size);
    }
  }

  std::vector<Capture> captures_;
  bool capturing_ = false;
  FaultClock::Epoch epoch_ = 0;
  Clock::time_point begin_;
};

}  // namespace

std::unique_ptr<Worker> MakeCaptureClient(RunContext& run, const Stream& stream,
                                          const std::filesystem::path& directory) {
  return std::make_unique<CaptureClient>(run, stream, directory);
}

}  // namespace kvox::campaign
