// A client that captures what passes, in files that it looks at and removes.

#include <fmt/format.h>

#include <fstream>
#include <vector>

#include "kvox/common/wav_header.h"
#include "tests/campaign/workers.h"

namespace kvox::campaign {
namespace {

/// At most this long a file grows.
constexpr Ms kFileTime{2000};

class Capturer : public Worker {
 public:
  Capturer(Shared& shared, const Stream& stream, std::filesystem::path directory)
      : Worker(shared, "capturer of " + stream.TapName()),
        shared_(shared),
        directory_(std::move(directory)),
        buffers_{fmt::format("tapout{}", stream.buffer), fmt::format("inject{}", stream.buffer)} {}

  void Turn(std::mt19937&) override {
    if (!capturing_) {
      Start();
    } else if (shared_.phase.mark() != mark_) {
      // The devices may have gone, and the captures with them.
      Abandon();
    } else if (Clock::now() - begin_ > kFileTime) {
      Stop();
    }
  }
  void ToReference() override {
    if (capturing_ && shared_.phase.mark() == mark_) Stop();
    if (capturing_) Abandon();
  }
  Ms Pause() const override { return Ms(50); }

 private:
  std::string FileOf(const std::string& buffer) const { return directory_ / (buffer + ".wav"); }

  Answer Debug(std::vector<std::string> words) {
    return asker_.Look("Debug capture",
                       [&] { return shared_.caller.Call("Debug", &IKvox::Debug, words); });
  }

  void Start() {
    mark_ = shared_.phase.mark();
    if (PhaseClock::PhaseOf(mark_) == Phase::kDisturbed) return;
    begin_ = Clock::now();
    capturing_ = true;
    for (const std::string& buffer : buffers_) Debug({"capture", "start", buffer, FileOf(buffer)});
  }

  void Stop() {
    for (const std::string& buffer : buffers_) {
      const bool stopped = Debug({"capture", "stop", buffer}).ok();
      if (stopped && shared_.phase.mark() == mark_) CheckFile(FileOf(buffer));
    }
    Forget();
  }

  /// Where nothing is known of what goes on, an answer proves nothing.
  void Abandon() {
    for (const std::string& buffer : buffers_) {
      shared_.caller.Call("Debug", &IKvox::Debug,
                          std::vector<std::string>{"capture", "stop", buffer});
    }
    Forget();
  }

  void Forget() {
    std::error_code ignored;
    for (const std::string& buffer : buffers_) std::filesystem::remove(FileOf(buffer), ignored);
    capturing_ = false;
  }

  /// The header is written last, so it tells that all is there. Where no packet came there is none.
  void CheckFile(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (!error && size == 0) return;
    WavHeader header{};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
    if (error || size < sizeof header || header.data_size != size - sizeof header) {
      shared_.findings.Add("the capture {} has {} bytes, its header tells of {} bytes of audio",
                           path, error ? 0 : size, header.data_size);
    }
  }

  Shared& shared_;
  const std::filesystem::path directory_;
  const std::vector<std::string> buffers_;
  bool capturing_ = false;
  unsigned mark_ = 0;
  Clock::time_point begin_;
};

}  // namespace

std::unique_ptr<Worker> MakeCapturer(Shared& shared, const Stream& stream,
                                     const std::filesystem::path& directory) {
  return std::make_unique<Capturer>(shared, stream, directory);
}

}  // namespace kvox::campaign
