#include "kvox/sound/resampler.h"

#include <samplerate.h>

#include <algorithm>
#include <string>

#include "kvox/sound/library.h"

namespace kvox {
namespace {

/// The functions we use, with the library's own types.
struct Functions {
  decltype(&src_new) create = nullptr;
  decltype(&src_delete) destroy = nullptr;
  decltype(&src_process) process = nullptr;
  decltype(&src_strerror) error_text = nullptr;
};

const Functions& Samplerate() {
  static const Functions functions = [] {
    const LateLibrary library("libsamplerate.so.0", "libsamplerate0");
    Functions loaded;
    library.Load("src_new", loaded.create);
    library.Load("src_delete", loaded.destroy);
    library.Load("src_process", loaded.process);
    library.Load("src_strerror", loaded.error_text);
    return loaded;
  }();
  return functions;
}

[[noreturn]] void Fail(int error) {
  throw SoundFileError(std::string("the sample rate cannot be converted: ") +
                       Samplerate().error_text(error) + "; convert the file first");
}

}  // namespace

void ResamplerCloser::operator()(SRC_STATE_tag* state) const {
  Samplerate().destroy(state);
}

Resampler::Resampler(size_t channels, double from_rate, double to_rate)
    : channels_(channels), ratio_(to_rate / from_rate) {
  int error = 0;
  state_.reset(Samplerate().create(SRC_SINC_BEST_QUALITY, static_cast<int>(channels), &error));
  if (!state_) Fail(error);
}

void Resampler::Convert(std::span<const double> frames, bool end, std::vector<double>& out) {
  in_.assign(frames.begin(), frames.end());
  const size_t count = frames.size() / channels_;
  const auto room = static_cast<size_t>(static_cast<double>(count) * ratio_) + 1024;
  out_.resize(room * channels_);
  SRC_DATA data = {};
  data.data_in = in_.data();
  data.input_frames = static_cast<long>(count);
  data.src_ratio = ratio_;
  data.end_of_input = end ? 1 : 0;
  do {
    data.data_out = out_.data();
    data.output_frames = static_cast<long>(room);
    if (const int error = Samplerate().process(state_.get(), &data)) Fail(error);
    const auto made = static_cast<size_t>(data.output_frames_gen) * channels_;
    out.insert(out.end(), out_.begin(), out_.begin() + static_cast<ptrdiff_t>(made));
    data.data_in += data.input_frames_used * static_cast<long>(channels_);
    data.input_frames -= data.input_frames_used;
  } while (data.input_frames > 0 || (end && data.output_frames_gen > 0));
}

}  // namespace kvox
