// Clients that change the graph.

#include <array>
#include <thread>

#include "tests/campaign/workers.h"

namespace kvox::campaign {
namespace {

constexpr Ms kLastPacketsPatience{2500};  // the simulator gives a packet up after two seconds
constexpr Ms kLook{10};

/// Waits until what was sent is back or given up.
void AwaitLastPackets(const Stream& stream, const SimControl& sim) {
  const auto until = Clock::now() + kLastPacketsPatience;
  try {
    while (Clock::now() < until && sim.Status().taps[stream.TapName()].in_flight > 0) {
      std::this_thread::sleep_for(kLook);
    }
  } catch (const SimError&) {
    // Whoever watches the simulator tells.
  }
}

class Changer : public Worker {
 public:
  Changer(Shared& shared, const Stream& stream, Manner manner, const SimControl& sim)
      : Worker(shared, "changer of " + stream.TapName()),
        stream_(stream),
        manner_(manner),
        sim_(sim) {}

  void Turn(std::mt19937& random) override {
    static constexpr std::array kChanges = {&Changer::SwitchTap,      &Changer::SwitchProcessor,
                                            &Changer::TieProcessor,   &Changer::BindTap,
                                            &Changer::Remake,         &Changer::SwitchIo,
                                            &Changer::SetBlockLength, &Changer::SetJitterBuffer};
    const auto change = kChanges[random() % kChanges.size()];
    if (!Silence()) return;
    (this->*change)(random);
    Sound();
  }

  void ToReference() override {
    const int buffer = stream_.buffer;
    tap_wanted_ = true;
    Silence() && (made_ || Make()) && (tied_ || Tie(buffer)) &&
        (processor_on_ || SetProcessor(true)) && (bound_ || Bind(buffer)) &&
        (io_on_ || SetIo(true)) && SetBlocks(kLongBlock) && Sound();
  }

 private:
  static constexpr uint32_t kLongBlock = 4800;
  static constexpr uint32_t kBlocks[] = {4800, 3840, 2880};  // whole runs of 480

  // Each answers whether it was acknowledged.
  bool SetTap(bool on) { return asker_.TapEnable(stream_, on) && Set(tap_on_, on); }
  bool SetProcessor(bool on) {
    return asker_.ProcessorEnable(stream_.processor, on) && Set(processor_on_, on);
  }
  bool SetIo(bool on) {
    const bool done = on ? asker_.StartIo(stream_.buffer) : asker_.StopIo(stream_.buffer);
    return done && Set(io_on_, on);
  }
  bool Tie(int buffer) {
    return asker_.Connect(stream_.processor, buffer, buffer) && Set(tied_, buffer != kNone) &&
           (!tied_ || !io_on_ || SetIo(true));  // the inject buffer too
  }
  bool Bind(int buffer) {
    return asker_.ConnectTap(stream_, buffer, buffer) && Set(bound_, buffer != kNone);
  }
  bool Make() {
    return asker_.NewProcessor(stream_.processor, stream_.type) && Set(made_, true) &&
           Set(processor_on_, false) && Set(tied_, false);
  }
  bool SetBlocks(uint32_t frames) { return asker_.TapSetBlockLength(stream_, frames); }
  static bool Set(bool& flag, bool value) {
    flag = value;
    return true;
  }

  /// In good order audio stops before anything is changed, and flows only all the way.
  bool Silence() {
    if (manner_ == Manner::kRough || !tap_on_) return true;
    if (!SetTap(false)) return false;
    AwaitLastPackets(stream_, sim_);
    return true;
  }
  bool Sound() {
    const bool whole = made_ && tied_ && bound_ && io_on_;
    const bool on = tap_wanted_ && (manner_ == Manner::kRough || whole);
    return tap_on_ == on || SetTap(on);
  }

  // Changes.
  void SwitchTap(std::mt19937&) { tap_wanted_ = !tap_wanted_; }
  void SwitchProcessor(std::mt19937&) { SetProcessor(!processor_on_); }
  void TieProcessor(std::mt19937&) { Tie(tied_ ? kNone : stream_.buffer); }
  void BindTap(std::mt19937&) { Bind(bound_ ? kNone : stream_.buffer); }
  void SwitchIo(std::mt19937&) { SetIo(!io_on_); }
  void SetBlockLength(std::mt19937& random) { SetBlocks(kBlocks[random() % std::size(kBlocks)]); }
  void SetJitterBuffer(std::mt19937& random) {
    asker_.TapSetJitterBuffer(stream_, static_cast<uint32_t>(random() % 1000));
  }
  /// Gone and made anew, with and without being untied first.
  void Remake(std::mt19937&) {
    const bool was_on = processor_on_;
    const bool was_tied = tied_;
    (!tied_ || Tie(kNone)) && asker_.DeleteProcessor(stream_.processor) && Make() &&
        (!was_tied || Tie(stream_.buffer)) && (!was_on || SetProcessor(true));
  }

  const Stream& stream_;
  const Manner manner_;
  const SimControl& sim_;
  // What was acknowledged last; all of it at the reference.
  bool made_ = true;
  bool tied_ = true;
  bool processor_on_ = true;
  bool bound_ = true;
  bool tap_wanted_ = true;
  bool tap_on_ = true;
  bool io_on_ = true;
};

class UseCaseSwitcher : public Worker {
 public:
  UseCaseSwitcher(Shared& shared, Manner manner, const SimControl& sim)
      : Worker(shared, "switcher of MIC_IN"), manner_(manner), sim_(sim) {
    for (const Stream& stream : Streams()) {
      if (stream.owner == Owner::kUseCase) stream_ = &stream;
    }
  }

  void Turn(std::mt19937&) override { Switch(!on_); }
  void ToReference() override {
    if (!on_) Switch(true);
  }
  Ms Pause() const override { return Ms(300); }

 private:
  void Switch(bool on) {
    if (!on && manner_ == Manner::kOrderly) {
      if (!asker_.TapEnable(*stream_, false)) return;
      AwaitLastPackets(*stream_, sim_);
    }
    const bool done = on ? asker_.EnableUseCase(IKvox::UseCase::MIC_IN)
                         : asker_.DisableUseCase(IKvox::UseCase::MIC_IN);
    if (done) on_ = on;
  }

  const Manner manner_;
  const SimControl& sim_;
  const Stream* stream_ = nullptr;
  bool on_ = true;
};

}  // namespace

std::unique_ptr<Worker> MakeChanger(Shared& shared, const Stream& stream, Manner manner,
                                    const SimControl& sim) {
  return std::make_unique<Changer>(shared, stream, manner, sim);
}

std::unique_ptr<Worker> MakeUseCaseSwitcher(Shared& shared, Manner manner, const SimControl& sim) {
  return std::make_unique<UseCaseSwitcher>(shared, manner, sim);
}

}  // namespace kvox::campaign
