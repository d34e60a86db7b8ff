// The memory that all clients of a service together may make it use: for requests, from their
// header until they are served, and for replies that clients leave unread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "kvox/common/mutex.h"
#include "platform/linux/fair_share.h"

namespace kvox::binder {

/// A connection of the service. Both functions are called on any thread under no lock.
class LoadMember {
 public:
  /// It may try again to hold the large frame that it was refused.
  virtual void OnLargeFrameMayFit() = 0;
  /// The clients hold too much, and this one the most of the user with the most: it ends.
  virtual void OnOverload() = 0;

 protected:
  ~LoadMember() = default;
};

/// Shared by a service's connections. Any thread.
class ServiceLoad : public std::enable_shared_from_this<ServiceLoad> {
 public:
  /// The memory of one frame. Its destructor returns it; under no lock.
  class Hold {
   public:
    Hold(std::shared_ptr<ServiceLoad> load, uint64_t member, size_t bytes)
        : load_(std::move(load)), member_(member), bytes_(bytes) {}
    ~Hold() { load_->Return(member_, bytes_); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    const std::shared_ptr<ServiceLoad> load_;
    const uint64_t member_;
    const size_t bytes_;
  };

  /// Adds a connection of that user and returns its number, which is not 0.
  uint64_t Add(uid_t user, std::weak_ptr<LoadMember> connection);
  /// It is closed: what it left unread is freed, and it waits for nothing.
  void Remove(uint64_t member);

  /// Null when the frame is large, and there are too many of them, of that user or in all: then
  /// OnLargeFrameMayFit follows.
  std::unique_ptr<Hold> TakeFrame(uint64_t member, size_t bytes);

  /// So many bytes for it are unread. Under any lock; Relieve must follow under none.
  void SetUnread(uint64_t member, size_t bytes);
  /// Ends those that hold too much, and calls those that may try again.
  void Relieve();

 private:
  struct Account {
    uid_t user;
    std::weak_ptr<LoadMember> connection;
    size_t held = 0;
    size_t unread = 0;
    int large_frames = 0;
    bool waits = false;
    bool ended = false;  // or about to: its bytes do not count any more
    bool removed = false;

    size_t bytes() const { return ended ? 0 : held + unread; }
    /// Requests of a client that does not read are not served; it keeps nobody else waiting.
    int large_frames_in_use() const;
  };
  using Accounts = std::map<uint64_t, Account>;

  void Return(uint64_t member, size_t bytes);
  bool MayTakeLarge(const Account& account) const REQUIRES(mutex_);
  /// Null when nobody holds anything.
  Account* Largest() REQUIRES(mutex_);
  void End(Account& account) REQUIRES(mutex_);

  Mutex mutex_;  // a leaf lock
  uint64_t last_member_ GUARDED_BY(mutex_) = 0;
  Accounts accounts_ GUARDED_BY(mutex_);
  size_t bytes_ GUARDED_BY(mutex_) = 0;            // of all
  bool wakes_waiting_ GUARDED_BY(mutex_) = false;  // some may find a place now
};

}  // namespace kvox::binder
