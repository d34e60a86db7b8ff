// What top knows of the daemon at a time.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "client/monitor/poller.h"
#include "client/monitor/rows.h"

namespace kvox::client {

/// The outcome of looks, one after the other. A daemon that has gone leaves its last rows behind.
class Picture {
 public:
  /// `time` is when it came, for people.
  void Take(Look look, const std::string& time);

  /// "kvoxd answers in 1.2 ms | 3 processors, 16 buffers | 12:34:56.789"
  std::string Head(std::chrono::steady_clock::duration unanswered) const;

  /// True when the last look found a daemon.
  bool present() const { return present_; }
  /// Why it did not.
  const std::string& why_not() const { return why_not_; }
  const std::vector<Row>& rows() const { return rows_; }
  int unread() const { return unread_; }

 private:
  PeriodHistory history_;
  std::vector<Row> rows_;
  size_t processors_ = 0;
  int unread_ = 0;
  bool present_ = false;
  double took_ms_ = 0;
  std::string time_;  // since when the daemon is away, or else when the rows came
  std::string why_not_;
};

}  // namespace kvox::client
