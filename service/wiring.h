// Which buffers each processor reads and writes, and which processors are to be enabled again. The
// only place that connects and disconnects, and that publishes the routes of tap-out buffers.
//
// Two locks. Operations take turns, so that connecting, switching and deleting processors never
// mix. The edges have a separate short lock, which every look-up and publication takes. No lock is
// held while old routes go out of use.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "buffer/kvox_buffer.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/mutex.h"
#include "kvox/common/tap_format.h"
#include "processors/kvox_processor.h"
#include "service/inventory.h"
#include "service/report.h"
#include "service/saved_state.h"

namespace kvox {

/// Any thread but an I/O thread.
class Wiring : public BufferWiring {
 public:
  /// Both outlive the object.
  Wiring(Inventory& inventory, SavedState& saved) : inventory_(inventory), saved_(saved) {}

  // Operations.

  /// The command: connects the processor to these buffers, -1 for none, and saves that.
  void Connect(FourCc id, int tapout, int inject, Report& report);

  /// After a departure: connects the processor as saved. One that cannot be connected stays
  /// disabled until a later Restore, unless a client has switched it by then.
  void Restore(FourCc id);

  /// Returns the processor's status, or nothing when there is none.
  std::optional<int32_t> EnableProcessor(FourCc id, bool enable);

  /// Replaces the processor of that id with `created`, in one step; null only deletes it.
  /// `replaced` is whether there was one. False if there are too many processors.
  bool ReplaceProcessor(FourCc id, ProcessorPtr created, bool& replaced);

  /// Passes the format of the arriving audio on to the tap-out buffer and its processors. Returns
  /// the status of the first processor that refuses it; those after it do not get the format.
  int32_t SetRxFormat(const BufferPtr& tapout, const KvoxTapFormat& format);

  void DumpBuffer(const BufferPtr& buffer);

  /// Switches the buffer off permanently and disconnects it. Does not wait for other operations.
  void DropBuffer(const BufferPtr& buffer);

  /// The processor's block_state() has changed; see ProcessorHost.
  void BlockStateChanged(const KvoxProcessor& processor);

  // Look-ups.

  /// The buffers that a Connect has named; null for none.
  struct Endpoints {
    BufferPtr input;
    BufferPtr output;
  };
  Endpoints EndpointsOf(const KvoxProcessor& processor) const;

  /// The processors that read a tap-out buffer, in the order in which they get its blocks; the one
  /// that writes an inject buffer.
  std::vector<ProcessorPtr> ReadersOf(const KvoxBuffer& tapout) const;
  ProcessorPtr WriterOf(const KvoxBuffer& inject) const;

  /// The inject buffers that a tap-out buffer's processors write.
  std::vector<BufferPtr> WrittenBy(const KvoxBuffer& tapout) const;

  /// Whether the processor has lost a buffer with its device and has not been connected since.
  bool AwaitsRestore(const KvoxProcessor& processor) const;

  // BufferWiring.
  unsigned CountProcessors(const KvoxBuffer& buffer) override;
  void PortChanged(const KvoxBuffer& inject) override;

 private:
  /// The buffers of one processor. A Connect that named an unknown inject buffer leaves a processor
  /// that had no source with one that is not shown as its input.
  struct Edges {
    ProcessorPtr processor;
    BufferPtr source = nullptr;
    bool source_shown = false;
    BufferPtr output = nullptr;
  };

  void RestoreLocked(FourCc id) REQUIRES(operation_mutex_);
  Outcome ConnectLocked(FourCc id, int tapout, int inject) REQUIRES(operation_mutex_);
  void SetSource(const ProcessorPtr& processor, const BufferPtr& tapout, bool shown,
                 const BufferPtr& output) REQUIRES(operation_mutex_);
  void SetOutput(const ProcessorPtr& processor, const BufferPtr& before, const BufferPtr& inject,
                 std::string& text) REQUIRES(operation_mutex_);
  void PropagateFormat(KvoxProcessor& processor, const KvoxBuffer& tapout)
      REQUIRES(operation_mutex_);
  void Disconnect(const ProcessorPtr& processor) REQUIRES(operation_mutex_);

  /// Changes the edges of one processor, or those for which `concerned` is true. Publishes the
  /// routes of every tap-out buffer that feeds these processors, before or after, and returns when
  /// no packet uses the old ones.
  using EdgesChange = std::function<void(Edges&)>;
  void ChangeOf(const ProcessorPtr& processor, const EdgesChange& change) EXCLUDES(edges_mutex_);
  void ChangeWhere(const std::function<bool(const Edges&)>& concerned, const EdgesChange& change)
      EXCLUDES(edges_mutex_);
  class RouteUpdate;
  void Publish(const BufferPtr& tapout) REQUIRES(edges_mutex_);
  Edges EdgesOf(const KvoxProcessor& processor) const EXCLUDES(edges_mutex_);
  void EndAwaitingRestore(const KvoxProcessor& processor) EXCLUDES(edges_mutex_);

  Inventory& inventory_;
  SavedState& saved_;

  Mutex operation_mutex_ ACQUIRED_BEFORE(edges_mutex_);
  /// Processors that a recovery left disabled because their buffers are not back. They stay noted
  /// through further departures: a client that has not disabled its processor wants its audio back.
  std::set<FourCc> to_enable_again_ GUARDED_BY(operation_mutex_);

  mutable Mutex edges_mutex_;  // before leaf locks only
  /// By address, which is the order in which a tap-out buffer's processors get its blocks.
  std::map<const KvoxProcessor*, Edges> edges_ GUARDED_BY(edges_mutex_);
  std::set<const KvoxProcessor*> awaiting_restore_ GUARDED_BY(edges_mutex_);
};

}  // namespace kvox
