// The clients that keep the daemon busy: threads that each take one turn after the other, and that
// can be asked to stand still where nothing is half done.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/campaign/asker.h"

namespace kvox::campaign {

/// What one thread does. Its functions are called by that thread only, but for Pending().
class Worker {
 public:
  Worker(Shared& shared, std::string name) : asker_(shared, name), name_(std::move(name)) {}
  virtual ~Worker() = default;
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// Something whole: when it returns nothing is half done.
  virtual void Turn(std::mt19937& random) = 0;
  /// Brings everything that is its own into the state of the start.
  virtual void ToReference() {}
  /// Between two turns.
  virtual Ms Pause() const { return Ms(20); }

  const std::string& name() const { return name_; }
  std::string Pending() const { return asker_.Pending(); }

 protected:
  Asker asker_;

 private:
  const std::string name_;
};

enum class Stand {
  kAnyhow,       // as the last turn left things
  kAtReference,  // as they were at the start
};

class Crew {
 public:
  explicit Crew(Shared& shared) : shared_(shared) {}
  /// Ends all threads.
  ~Crew();
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  /// Each one's turns follow from the seed.
  void Start(std::unique_ptr<Worker> worker, unsigned seed);

  /// Has everybody stand still. Empty when all do within `limit`, else who does not and what he
  /// still asks for.
  std::string Halt(Stand stand, Ms limit);
  void Resume();
  void Stop();

 private:
  struct Member {
    std::unique_ptr<Worker> worker;
    unsigned standing_for = 0;  // the halt that it stands still for
    std::thread thread;
  };

  void Work(Member& member, unsigned seed);
  /// Stands still as long as that is wanted.
  void Attend(Member& member);

  Shared& shared_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool halting_ = false;
  unsigned halt_ = 0;  // counts halts
  Stand stand_ = Stand::kAnyhow;
  std::vector<std::unique_ptr<Member>> members_;
};

}  // namespace kvox::campaign
