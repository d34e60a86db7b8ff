#include "client/monitor/top_model.h"

#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr auto kWorthTelling = std::chrono::seconds(2);

std::string Counted(size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace

void Picture::Take(Look look, const std::string& time) {
  const bool was_present = present_;
  present_ = look.sample.has_value();
  if (!present_) {
    why_not_ = look.why_not;
    if (was_present || time_.empty()) time_ = time;
    history_ = {};
    return;
  }
  time_ = time;
  took_ms_ = look.took_ms;
  history_.Add(*look.sample);
  rows_ = RowsOf(*look.sample, history_);
  processors_ = look.sample->processors.size();
  unread_ = look.sample->unread;
}

std::string Picture::Head(std::chrono::steady_clock::duration unanswered) const {
  if (unanswered >= kWorthTelling) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(unanswered).count();
    return FormatText<64>("kvoxd has not answered for %lld s", static_cast<long long>(seconds));
  }
  if (time_.empty()) return "kvoxd is asked";
  if (!present_) return "kvoxd is away since " + time_ + ": " + why_not_;
  std::string head = FormatText<64>("kvoxd answers in %.1f ms | ", took_ms_) +
                     Counted(processors_, "processor") + ", " +
                     Counted(rows_.size() - processors_, "buffer") + " | ";
  if (unread_ > 0) head += FormatText<64>("%d rows cannot be read | ", unread_);
  return head + time_;
}

}  // namespace kvox::client
