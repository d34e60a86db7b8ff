// While the object lives, the process cannot create threads.
#pragma once

#include <pthread.h>

namespace kvox {

/// The stack of a new thread would not fit into the address space.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t huge = before_;
    pthread_attr_setstacksize(&huge, size_t{1} << 60);
    pthread_setattr_default_np(&huge);
  }
  ~NoThreads() {
    pthread_setattr_default_np(&before_);
    pthread_attr_destroy(&before_);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t before_;
};

}  // namespace kvox
