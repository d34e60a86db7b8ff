// What top shows of a daemon, one row per object.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "client/monitor/poller.h"
#include "client/monitor/stream_figures.h"
#include "client/output/printer.h"

namespace kvox::client {

/// A processor's measurements, summed up. None where nothing was measured.
struct Metrics {
  int64_t blocks = 0;
  std::optional<double> period_ms = {};      // average since the last poll
  std::optional<double> active_ms = {};      // average
  std::optional<double> max_active_ms = {};  // longest
  std::optional<double> active_share = {};   // of the period: 0.5 is half of it
};

struct Row {
  const char* object = "";  // "processor", "tap-out", "inject"
  std::string name;
  std::string type = {};
  bool enabled = false;
  bool gave_up = false;
  std::vector<std::string> from;  // where its audio comes from
  std::vector<std::string> to;    // where it goes
  std::optional<Metrics> metrics = {};
  std::optional<StreamFigures> figures = {};  // of a buffer; of a processor those of its input
};

Metrics MetricsOf(const Measurement& measurement);

Json RecordOf(const Row& row);

/// The results of polls, one after the other. The last rows stay when the daemon goes away.
class TopModel {
 public:
  /// A daemon that does not reply for so long is named silent.
  static constexpr auto kSlow = std::chrono::seconds(2);

  /// `time` is when it came, for people.
  void Update(PollResult result, const std::string& time);

  /// "kvoxd answers in 1.2 ms | 3 processors, 16 buffers | 12:34:56.789"
  std::string Head(std::chrono::steady_clock::duration in_flight) const;

  /// True when the last poll reached a daemon.
  bool present() const { return present_; }
  /// Why it did not.
  const std::string& error() const { return error_; }
  /// In the daemon's order: processors, tap-out buffers, inject buffers.
  const std::vector<Row>& rows() const { return rows_; }
  int unparsed() const { return unparsed_; }

 private:
  FigureHistory history_;
  std::vector<Row> rows_;
  size_t processors_ = 0;
  int unparsed_ = 0;
  bool present_ = false;
  double took_ms_ = 0;
  std::string time_;  // since when the daemon is away, or else when the rows came
  std::string error_;
};

}  // namespace kvox::client
