// Prints the peak level of a point's audio, each second: receive_audio imic.0

#include <libkvox/device.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
  using namespace kvox::client;
  if (argc != 2) {
    std::fprintf(stderr, "usage: receive_audio POINT\n");
    return 2;
  }
  try {
    Device device;
    Receiver receiver(device.daemon(), argv[1]);
    double peak = 0;
    uint64_t frames = 0;
    for (int seconds = 0; seconds < 3;) {
      const auto block = receiver.Next(std::chrono::seconds(1));
      if (!block) continue;  // nothing yet
      if (block->missing > 0) std::printf("%s\n", block->cause.text.c_str());
      std::vector<double> samples(block->frames() * block->format.channels);
      Decode(block->data, block->format, samples);
      for (const double sample : samples) peak = std::max(peak, std::abs(sample));
      frames += block->missing + block->frames();
      if (frames < block->format.sample_rate) continue;
      std::printf("peak %.1f dBFS\n", 20 * std::log10(std::max(peak, 1e-6)));
      frames = 0;
      peak = 0;
      ++seconds;
    }
  } catch (const Failure& failure) {
    std::fprintf(stderr, "receive_audio: %s\n", failure.what());
    return failure.status();
  }
  return 0;
}
