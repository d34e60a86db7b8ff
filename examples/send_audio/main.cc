// Plays a second of a 1 kHz tone at a point: send_audio genp.0

#include <libkvox/device.h>

#include <cmath>
#include <cstdio>
#include <numbers>
#include <vector>

int main(int argc, char** argv) {
  using namespace kvox::client;
  if (argc != 2) {
    std::fprintf(stderr, "usage: send_audio POINT\n");
    return 2;
  }
  try {
    Device device;
    Sender sender(device.daemon(), argv[1]);
    SendFormat format;
    while (!sender.WaitForFormat(std::chrono::seconds(1), format)) {
    }
    const auto [audio, block_frames] = format;
    std::vector<double> samples(block_frames * audio.channels);
    std::vector<std::byte> block(block_frames * audio.FrameSize());
    for (uint64_t at = 0; at < audio.sample_rate; at += block_frames) {
      for (size_t i = 0; i < samples.size(); ++i) {
        const uint64_t frame = at + i / audio.channels;
        const double t = static_cast<double>(frame) / audio.sample_rate;
        samples[i] = 0.25 * std::sin(2 * std::numbers::pi * 1000 * t);
      }
      Encode(samples, audio, block);
      while (!sender.Send(block, std::chrono::seconds(1))) {
      }
    }
    while (!sender.Drain(std::chrono::seconds(1))) {
    }
    std::printf("%llu blocks sent, %llu missed\n",
                static_cast<unsigned long long>(sender.counts().blocks),
                static_cast<unsigned long long>(sender.counts().missed));
  } catch (const Failure& failure) {
    std::fprintf(stderr, "send_audio: %s\n", failure.what());
    return failure.status();
  }
  return 0;
}
