#include "tests/campaign/fault_plan.h"

#include <algorithm>

namespace kvox::campaign {
namespace {

constexpr size_t kMostAtOnce = 3;
constexpr double kMostDelay_s = 0.5;
constexpr double kMostPause_s = 0.3;

Ms RandomMs(RandomSource& random, double most_s) {
  return Ms(static_cast<int64_t>(random.Seconds(0, most_s) * 1000));
}

}  // namespace

Ms FaultEvent::Lasts() const {
  Ms begin{};
  Ms end{};
  for (const Part& part : parts) {
    begin += part.delay;
    end = std::max(end, begin + part.injection.lasts);
  }
  return end;
}

Ms FaultEvent::RecoveryLimit() const {
  Ms limit{};
  for (const Part& part : parts) limit = std::max(limit, RecoveryLimitAfter(part.kind->group));
  return limit;
}

bool FaultEvent::Has(FaultGroup group) const {
  return std::any_of(parts.begin(), parts.end(),
                     [&](const Part& part) { return part.kind->group == group; });
}

bool FaultEvent::KeepsAudio() const {
  return std::all_of(parts.begin(), parts.end(),
                     [](const Part& part) { return campaign::KeepsAudio(part.kind->group); });
}

bool FaultEvent::HasClient() const {
  return std::any_of(parts.begin(), parts.end(),
                     [](const Part& part) { return part.injection.client != nullptr; });
}

std::string FaultEvent::Text() const {
  std::string text;
  const auto add = [&](const std::string& words) { text += (text.empty() ? "" : "; ") + words; };
  for (const Part& part : parts) {
    for (const std::string& words : part.injection.commands) add(words);
    if (part.injection.kills) {
      add("simulator killed, away for " + std::to_string(part.injection.away.count()) + " ms");
    }
    if (part.injection.client != nullptr) {
      add(std::string(part.kind->name) + " " + std::to_string(part.injection.choice));
    }
  }
  return text;
}

/// Lets faults of packets strike any stream: the client may stop the one that they would wait for.
void StrikeAnyStream(FaultEvent& event) {
  for (FaultEvent::Part& part : event.parts) {
    if (part.kind->group != FaultGroup::kPackets) continue;
    for (std::string& command : part.injection.commands) {
      command.erase(std::min(command.find(kOfTap), command.size()));
    }
  }
}

FaultPlan::FaultPlan(uint64_t seed, bool quick, const FaultKind* only) : random_(seed) {
  for (const FaultKind& kind : FaultKinds()) {
    if (only != nullptr ? &kind != only : quick && kind.slow) continue;
    kinds_.push_back(&kind);
    weights_ += kind.weight;
  }
  alone_ = kinds_;
  for (size_t i = alone_.size(); i > 1; --i) std::swap(alone_[i - 1], alone_[random_.Below(i)]);
}

const FaultKind& FaultPlan::Choose() {
  if (weights_ == 0) return *kinds_.front();
  size_t left = random_.Below(weights_);
  for (const FaultKind* kind : kinds_) {
    if (left < kind->weight) return *kind;
    left -= kind->weight;
  }
  return *kinds_.front();
}

FaultEvent FaultPlan::Next() {
  FaultEvent event;
  const auto add = [&](const FaultKind& kind) {
    event.parts.push_back({&kind, kind.make(random_, kind.name)});
  };
  if (!alone_.empty()) {
    add(*alone_.back());
    alone_.pop_back();
  } else {
    const size_t parts = 1 + random_.Below(kMostAtOnce);
    for (size_t i = 0; i < parts; ++i) {
      const FaultKind& kind = Choose();
      if (i > 0 && kind.alone) continue;
      add(kind);
      if (kind.alone) break;
      if (i > 0) event.parts.back().delay = RandomMs(random_, kMostDelay_s);
    }
  }
  if (event.HasClient()) StrikeAnyStream(event);
  event.pause = RandomMs(random_, kMostPause_s);
  return event;
}

}  // namespace kvox::campaign
