// The routes of a tap-out buffer's packets: an immutable table that service threads replace as a
// whole and the I/O thread reads without a lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "buffer/inject_port.h"
#include "kvox/common/mutex.h"
#include "kvox/common/tap_format.h"
#include "processors/kvox_processor.h"

namespace kvox {

struct Route {
  std::shared_ptr<KvoxProcessor> processor;
  std::shared_ptr<const BlockState> state = nullptr;  // the processor's; null for none
  bool connected = false;                             // to an inject buffer
  std::shared_ptr<InjectPort> port = nullptr;         // null while that is not enabled
};

struct RouteTable {
  std::vector<Route> routes;
  KvoxTapFormat rx_format;  // as last set by a command
  uint32_t rx_format_serial = 0;
};

/// Hands tables from service threads to one reader, the I/O thread. A replaced table is destroyed
/// by a service thread once the reader has moved on, never by the reader: the packet path must not
/// drop the last reference to a processor or a port.
class RoutePublisher {
 public:
  /// `nudge` ends the reader's wait inside a packet; it may be called at any time.
  explicit RoutePublisher(std::function<void()> nudge);
  ~RoutePublisher();

  /// Replaces the table. Callers take turns; any service thread.
  void Publish(std::unique_ptr<const RouteTable> table);

  /// The table published last. Callers take turns with Publish.
  const RouteTable& published() const { return *published_.load(); }

  /// Returns once the reader has moved on from every replaced table, and destroys them. The reader
  /// holds a table for one packet only, whose waits are bounded and end at a nudge. On the reader's
  /// own thread, the table in use is left to the next call. The caller holds no lock that
  /// ProcessBlock takes.
  void WaitForGracePeriod();

  /// Reader's side, RT: the table for one packet.
  class Use {
   public:
    explicit Use(RoutePublisher& publisher);
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    const RouteTable& operator*() const { return *table_; }
    const RouteTable* operator->() const { return table_; }

   private:
    RoutePublisher& publisher_;
    const RouteTable* table_;
  };

  /// RT: whether the table in use has been replaced. Inside a Use only.
  bool Superseded() const;

 private:
  bool DestroyUnused();

  const std::function<void()> nudge_;
  std::atomic<const RouteTable*> published_;
  std::atomic<const RouteTable*> in_use_ = nullptr;
  Mutex mutex_;  // a leaf lock
  std::vector<std::unique_ptr<const RouteTable>> retired_ GUARDED_BY(mutex_);
};

}  // namespace kvox
