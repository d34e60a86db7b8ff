// How users share a limited number of places: of connections, of large frames, of calls in flight.
#pragma once

#include <algorithm>

namespace kvox::binder {

struct Places {
  int all;
  int kept;                // for privileged users, nobody else gets them
  int of_privileged_user;  // the most that one of these may have
};

/// How many places an ordinary user may have while privileged users and the other ordinary ones
/// have so many: half of what these leave, so that there is room for more users. Once as many users
/// as possible have places, the last have one each, and further users none until somebody leaves.
constexpr int OrdinaryShare(const Places& places, int of_privileged, int of_other_ordinary) {
  const int room = places.all - std::max(of_privileged, places.kept) - of_other_ordinary;
  return room <= 0 ? 0 : std::max(room / 2, 1);
}

/// Counts the places of all users from the view of one of them.
class PlaceCount {
 public:
  void Add(bool same_user, bool privileged, int places) {
    all_ += places;
    if (same_user) of_user_ += places;
    if (privileged) of_privileged_ += places;
  }
  /// How many places the user may have now.
  int Share(const Places& places, bool privileged) const {
    if (privileged) return std::min(places.of_privileged_user, places.all - all_ + of_user_);
    return OrdinaryShare(places, of_privileged_, all_ - of_privileged_ - of_user_);
  }
  int all() const { return all_; }
  int of_user() const { return of_user_; }
  bool MayTake(const Places& places, bool privileged) const {
    return of_user_ < Share(places, privileged);
  }

 private:
  int all_ = 0;
  int of_user_ = 0;
  int of_privileged_ = 0;
};

}  // namespace kvox::binder
