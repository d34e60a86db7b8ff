#include "service/wiring.h"

#include <algorithm>
#include <utility>

#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

const char* NameOf(const BufferPtr& buffer) {
  return buffer ? buffer->name().c_str() : kNotConnected;
}

void* AddressOf(const ProcessorPtr& processor) {
  return processor.get();
}

std::string ConnectRequest(FourCc id, int tapout, int inject) {
  return FormatText<128>(
      "Connect Kvox processor: tap-out buffer %d --> processor %s --> inject buffer %d\n", tapout,
      ToString(id).c_str(), inject);
}

}  // namespace

void Wiring::Connect(FourCc id, int tapout, int inject, Report& report) {
  report.Begin(ConnectRequest(id, tapout, inject));
  MutexLock lock(operation_mutex_);
  const Outcome outcome = ConnectLocked(id, tapout, inject);
  if (outcome.status == StatusCode::kOk) {
    to_enable_again_.erase(id);
    for (const FourCc loser :
         saved_.SaveConnection(id, {.tapout_buffer = tapout, .inject_buffer = inject})) {
      if (to_enable_again_.contains(loser)) RestoreLocked(loser);  // it waits for that buffer only
    }
  }
  report.End("Connect", outcome);
}

Outcome Wiring::ConnectLocked(FourCc id, int tapout_number, int inject_number) {
  const ProcessorPtr processor = inventory_.FindProcessor(id);
  const BufferPtr tapout = inventory_.FindTapOut(tapout_number);
  const BufferPtr inject = inventory_.FindInject(inject_number);
  if (!processor) return {StatusCode::kInvalidProcessor, "Invalid processor"};
  if (tapout_number != -1 && !tapout) {
    return {StatusCode::kInvalidParameter, "Invalid tap out buffer"};
  }
  if (inject_number != -1 && !inject) {
    if (const Edges edges = EdgesOf(*processor); !edges.source) {
      SetSource(processor, tapout, false, edges.output);
    }
    return {StatusCode::kInvalidParameter, "Invalid inject buffer"};
  }
  std::string text;
  const BufferPtr output = EdgesOf(*processor).output;
  SetSource(processor, tapout, true, inject);
  SetOutput(processor, output, inject, text);
  EndAwaitingRestore(*processor);
  text += FormatText<128>("  Set %s input to %s\n", processor->id_text(), NameOf(tapout));
  text += FormatText<128>("  Set %s output to %s\n", processor->id_text(), NameOf(inject));
  return {StatusCode::kOk, text};
}

void Wiring::Restore(FourCc id) {
  MutexLock lock(operation_mutex_);
  RestoreLocked(id);
}

/// A processor is silent while it is connected.
void Wiring::RestoreLocked(FourCc id) {
  const ProcessorPtr processor = inventory_.FindProcessor(id);
  if (!processor) return;
  const ConnectionState saved = saved_.FindConnection(id);
  LogInfo("Restore processor connection state %s", processor->id_text());
  const bool was_enabled = processor->IsEnabled() || to_enable_again_.contains(id);
  processor->Enable(false);
  Report report;
  report.Begin(ConnectRequest(id, saved.tapout_buffer, saved.inject_buffer));
  report.End("Connect", ConnectLocked(id, saved.tapout_buffer, saved.inject_buffer));
  const bool back = report.ok() && (!was_enabled || processor->Enable(true) == 0);
  if (back) {
    to_enable_again_.erase(id);
  } else if (was_enabled) {
    to_enable_again_.insert(id);
  }
}

std::optional<int32_t> Wiring::EnableProcessor(FourCc id, bool enable) {
  MutexLock lock(operation_mutex_);
  const ProcessorPtr processor = inventory_.FindProcessor(id);
  if (!processor) return std::nullopt;
  to_enable_again_.erase(id);
  return processor->Enable(enable);
}

bool Wiring::ReplaceProcessor(FourCc id, ProcessorPtr created, bool& replaced) {
  ProcessorPtr before;  // released when every lock is
  bool stored = false;
  MutexLock lock(operation_mutex_);
  to_enable_again_.erase(id);
  before = inventory_.ReplaceProcessor(id, std::move(created), stored);
  replaced = before != nullptr;
  if (before) Disconnect(before);
  if (stored) saved_.LimitConnections(inventory_.Processors());
  return stored;
}

int32_t Wiring::SetRxFormat(const BufferPtr& tapout, const KvoxTapFormat& format) {
  LogInfo("%s %s set format sr:%u nch:%u Bps:%u noninterleaved:%u", NameOf(tapout), "SetRxFormat",
          format.sample_rate, format.channels, format.bytes_per_sample,
          format.noninterleaved_samples);
  MutexLock lock(operation_mutex_);
  tapout->SetRxFormat(format);
  for (const ProcessorPtr& processor : ReadersOf(*tapout)) {
    LogInfo("%s %s on processor %s", NameOf(tapout), "SetRxFormat", processor->id_text());
    const int32_t status = processor->SetFormat(format);
    if (status == 0) continue;
    LogError("Error setting format on processor %s, status %d", processor->id_text(), status);
    return status;
  }
  return 0;
}

void Wiring::DumpBuffer(const BufferPtr& buffer) {
  MutexLock lock(operation_mutex_);
  const ProcessorPtr writer = WriterOf(*buffer);
  buffer->DumpBuffer(writer ? EdgesOf(*writer).source.get() : nullptr);
}

void Wiring::DropBuffer(const BufferPtr& buffer) {
  if (!buffer->Drop()) return;
  {
    MutexLock lock(edges_mutex_);
    for (const auto& [address, edges] : edges_) {
      if (edges.source == buffer || edges.output == buffer) awaiting_restore_.insert(address);
    }
  }
  LogInfo("%s %s", NameOf(buffer), "UnregisterAllOutputs");
  ChangeWhere([&](const Edges& edges) { return edges.source == buffer; },
              [](Edges& edges) { edges.source = nullptr; });
  LogInfo("%s %s", NameOf(buffer), "UnregisterInput");
  ChangeWhere([&](const Edges& edges) { return edges.output == buffer; },
              [](Edges& edges) { edges.output = nullptr; });
}

void Wiring::BlockStateChanged(const KvoxProcessor& processor) {
  ChangeWhere([&](const Edges& edges) { return edges.processor.get() == &processor; },
              [](Edges&) {});
}

void Wiring::PortChanged(const KvoxBuffer& inject) {
  ChangeWhere([&](const Edges& edges) { return edges.output.get() == &inject; }, [](Edges&) {});
}

/// The processor leaves the tap-out buffer it had before: no two I/O threads ever feed it. From
/// then on it no longer writes an inject buffer other than `output`, which never gets the new
/// source's audio.
void Wiring::SetSource(const ProcessorPtr& processor, const BufferPtr& tapout, bool shown,
                       const BufferPtr& output) {
  if (const BufferPtr before = EdgesOf(*processor).source; before && before != tapout) {
    LogInfo("%s %s: %p", NameOf(before), "UnregisterOutput", AddressOf(processor));
    ChangeOf(processor, [](Edges& edges) { edges.source = nullptr; });
  }
  if (!tapout) return;
  LogInfo("%s %s %p", NameOf(tapout), "RegisterOutput", AddressOf(processor));
  ChangeOf(processor, [&](Edges& edges) {
    edges.source = tapout;
    edges.source_shown = shown;
    if (edges.output != output) edges.output = nullptr;
  });
  PropagateFormat(*processor, *tapout);
}

void Wiring::PropagateFormat(KvoxProcessor& processor, const KvoxBuffer& tapout) {
  const KvoxTapFormat format = tapout.RxFormat();
  if (format.sample_rate == 0) return;
  LogInfo("%s %s set format sr:%u nch:%u bps:%u noninterleaved:%u", tapout.name().c_str(),
          "RegisterOutput", format.sample_rate, format.channels, format.bytes_per_sample,
          format.noninterleaved_samples);
  const int32_t status = processor.SetFormat(format);
  if (status != 0) {
    LogError("%s %s set format error, status %d", tapout.name().c_str(), "RegisterOutput", status);
  }
}

/// The processor's present output and the inject buffer's present writer are disconnected first: no
/// two I/O threads ever write an inject buffer.
void Wiring::SetOutput(const ProcessorPtr& processor, const BufferPtr& before,
                       const BufferPtr& inject, std::string& text) {
  const auto clear = [](Edges& edges) { edges.output = nullptr; };
  if (before && before != inject) {
    LogInfo("%s %s", NameOf(before), "UnregisterInput");
    ChangeOf(processor, clear);
  }
  if (!inject) return;
  if (const ProcessorPtr writer = WriterOf(*inject); writer && writer != processor) {
    text += FormatText<128>("  %s is already connected to %s. Disconnecting\n", NameOf(inject),
                            writer->id_text());
    ChangeOf(writer, clear);
  }
  LogInfo("%s %s %p", NameOf(inject), "RegisterInput", AddressOf(processor));
  ChangeOf(processor, [&](Edges& edges) { edges.output = inject; });
}

void Wiring::Disconnect(const ProcessorPtr& processor) {
  std::string text;
  const BufferPtr output = EdgesOf(*processor).output;
  SetSource(processor, nullptr, false, nullptr);
  SetOutput(processor, output, nullptr, text);
  EndAwaitingRestore(*processor);
}

/// Collects the tap-out buffers whose routes change, and what has to be released without a lock.
class Wiring::RouteUpdate {
 public:
  void Change(Edges& edges, const EdgesChange& change) {
    before_.push_back(edges);
    change(edges);
    // A buffer may have been dropped since it was looked up.
    if (edges.source && edges.source->dropped()) edges.source = nullptr;
    if (edges.output && edges.output->dropped()) edges.output = nullptr;
    if (!edges.source) edges.source_shown = false;
    for (const BufferPtr& source : {before_.back().source, edges.source}) {
      if (source) tapouts_.insert(source);
    }
  }
  const std::set<BufferPtr>& tapouts() const { return tapouts_; }
  void WaitForGracePeriods() const {
    for (const BufferPtr& tapout : tapouts_) tapout->WaitForGracePeriod();
  }

 private:
  std::set<BufferPtr> tapouts_;
  std::vector<Edges> before_;
};

void Wiring::ChangeOf(const ProcessorPtr& processor, const EdgesChange& change) {
  RouteUpdate update;
  {
    MutexLock lock(edges_mutex_);
    Edges& edges = edges_[processor.get()];
    edges.processor = processor;
    update.Change(edges, change);
    for (const BufferPtr& tapout : update.tapouts()) Publish(tapout);
    if (!edges.source && !edges.output) edges_.erase(processor.get());
  }
  update.WaitForGracePeriods();
}

void Wiring::ChangeWhere(const std::function<bool(const Edges&)>& concerned,
                         const EdgesChange& change) {
  RouteUpdate update;
  {
    MutexLock lock(edges_mutex_);
    for (auto& [address, edges] : edges_) {
      if (concerned(edges)) update.Change(edges, change);
    }
    for (const BufferPtr& tapout : update.tapouts()) Publish(tapout);
    std::erase_if(edges_, [](const auto& entry) {
      return entry.second.source == nullptr && entry.second.output == nullptr;
    });
  }
  update.WaitForGracePeriods();
}

void Wiring::Publish(const BufferPtr& tapout) {
  std::vector<Route> routes;
  for (const auto& [address, edges] : edges_) {
    if (edges.source != tapout) continue;
    routes.push_back({.processor = edges.processor,
                      .state = edges.processor->block_state(),
                      .connected = edges.output != nullptr,
                      .port = edges.output ? edges.output->port() : nullptr});
  }
  tapout->SetRoutes(std::move(routes));
}

Wiring::Edges Wiring::EdgesOf(const KvoxProcessor& processor) const {
  MutexLock lock(edges_mutex_);
  const auto found = edges_.find(&processor);
  return found == edges_.end() ? Edges() : found->second;
}

void Wiring::EndAwaitingRestore(const KvoxProcessor& processor) {
  MutexLock lock(edges_mutex_);
  awaiting_restore_.erase(&processor);
}

bool Wiring::AwaitsRestore(const KvoxProcessor& processor) const {
  MutexLock lock(edges_mutex_);
  return awaiting_restore_.contains(&processor);
}

Wiring::Endpoints Wiring::EndpointsOf(const KvoxProcessor& processor) const {
  const Edges edges = EdgesOf(processor);
  return {.input = edges.source_shown ? edges.source : nullptr, .output = edges.output};
}

std::vector<ProcessorPtr> Wiring::ReadersOf(const KvoxBuffer& tapout) const {
  MutexLock lock(edges_mutex_);
  std::vector<ProcessorPtr> readers;
  for (const auto& [address, edges] : edges_) {
    if (edges.source.get() == &tapout) readers.push_back(edges.processor);
  }
  return readers;
}

ProcessorPtr Wiring::WriterOf(const KvoxBuffer& inject) const {
  MutexLock lock(edges_mutex_);
  for (const auto& [address, edges] : edges_) {
    if (edges.output.get() == &inject) return edges.processor;
  }
  return nullptr;
}

std::vector<BufferPtr> Wiring::WrittenBy(const KvoxBuffer& tapout) const {
  MutexLock lock(edges_mutex_);
  std::vector<BufferPtr> written;
  for (const auto& [address, edges] : edges_) {
    if (edges.source.get() == &tapout && edges.output) written.push_back(edges.output);
  }
  return written;
}

unsigned Wiring::CountProcessors(const KvoxBuffer& buffer) {
  MutexLock lock(edges_mutex_);
  return static_cast<unsigned>(std::count_if(edges_.begin(), edges_.end(), [&](const auto& entry) {
    return (buffer.is_tapout() ? entry.second.source : entry.second.output).get() == &buffer;
  }));
}

}  // namespace kvox
