// The memory of a flight log: a new file in a directory, or plain memory.
#pragma once

#include <sys/mman.h>

#include <string>

#include "kvox/common/unique_fd.h"
#include "kvox/flight/layout.h"

namespace kvox::flight {

/// One thread at a time.
class Mapping {
 public:
  /// Plain memory; none where the address space is limited.
  Mapping();
  ~Mapping();
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  /// Starts a new file in `directory` instead, and renames the one that is there to its
  /// predecessor. No other daemon gets the directory as long as this object lives, also when this
  /// fails. Returns what has failed, with the cause and the next step, or "".
  std::string MoveToFile(const std::string& directory, const char* program);

  /// Null for none.
  File* file() const { return file_; }

  /// Makes room on the disk for the slot, so that writing to it cannot fail, and keeps its pages in
  /// memory, where the limit of locked memory allows it. Returns 0 or an errno.
  int Provide(StreamSlot& slot);

  /// Its pages may leave the memory again.
  void Release(StreamSlot& slot) { munlock(&slot, sizeof slot); }

 private:
  std::string CreateFile(const std::string& directory, const char* program);

  UniqueFd lock_;  // of the directory
  UniqueFd fd_;    // none for plain memory
  File* file_;
};

}  // namespace kvox::flight
