// Wake locks: while one is held the machine does not suspend.
#pragma once

extern "C" {

enum {
  PARTIAL_WAKE_LOCK = 1,
  FULL_WAKE_LOCK = 2,
};

/// Writes `id` to `wake_lock` or `wake_unlock` in KVOX_WAKE_LOCK_DIR (default /sys/power). 0, or
/// minus errno. Without these files the lock is only counted. Any thread.
int acquire_wake_lock(int lock, const char* id);
int release_wake_lock(const char* id);

}  // extern "C"
