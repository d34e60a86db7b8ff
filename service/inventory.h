// All buffers, one for each data device of the co-processor, and all processors that clients have
// created. Its lock is held only for a look-up, a copy or an insertion: a look-up never waits for
// an exchange with the co-processor.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "buffer/kvox_buffer.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/mutex.h"
#include "processors/kvox_processor.h"
#include "service/device_scan.h"

namespace kvox {

using BufferPtr = std::shared_ptr<KvoxBuffer>;
using ProcessorPtr = std::shared_ptr<KvoxProcessor>;

/// Any thread. Returned objects stay valid even if they are removed afterwards.
class Inventory {
 public:
  /// Null when there is none.
  ProcessorPtr FindProcessor(FourCc id) const;
  BufferPtr Find(bool is_tapout, int number) const;
  BufferPtr FindTapOut(int number) const { return Find(true, number); }
  BufferPtr FindInject(int number) const { return Find(false, number); }
  /// The buffer for the same device as `buffer`, which may be an earlier one.
  BufferPtr FindPresent(const KvoxBuffer& buffer) const;

  /// By ascending id or number.
  std::vector<ProcessorPtr> Processors() const;
  std::vector<BufferPtr> TapOuts() const;
  std::vector<BufferPtr> Injects() const;

  /// Replaces the processor of that id with `created`, in one step; null only removes it. Returns
  /// the previous one. False in `stored` if there are too many.
  ProcessorPtr ReplaceProcessor(FourCc id, ProcessorPtr created, bool& stored);

  /// Makes a buffer for each device that has none yet, and returns the new ones.
  std::vector<BufferPtr> AddBuffers(const DeviceScan& scan, const BufferEnvironment& environment);

  /// Removes all buffers, tap-outs first. The caller drops them.
  std::vector<BufferPtr> TakeBuffers();

  /// Whether there are buffers of both kinds.
  bool HasBothKinds() const;

 private:
  using BufferMap = std::map<int, BufferPtr>;

  mutable Mutex mutex_;  // the table lock, a leaf lock
  std::map<FourCc, ProcessorPtr> processors_ GUARDED_BY(mutex_);
  BufferMap tapouts_ GUARDED_BY(mutex_);
  BufferMap injects_ GUARDED_BY(mutex_);
};

}  // namespace kvox
