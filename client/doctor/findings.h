// The doctor's findings, derived from the facts.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "client/doctor/facts.h"

namespace kvox::client {

enum class Verdict { kOk, kWarning, kFailed };

struct Finding {
  Verdict verdict = Verdict::kOk;
  const char* check = "";  // "control": the same word in every release
  std::string object;      // "control device /dev/xdv-kvox_control"
  std::string cause;       // what is wrong with it, or what it is
  std::string fix = {};    // a command; "" if nothing needs to be done
};

/// "ok", "warning", "failed"
const char* NameOf(Verdict verdict);

/// "failed   OBJECT: CAUSE  fix: COMMAND"
std::string LineOf(const Finding& finding);

/// The same line with its verdict in color.
std::string Painted(const std::string& line);

/// A finding for each fact. A failure prevents audio or clients from working; a warning may degrade
/// them, or is harmless on a host without a co-processor.
std::vector<Finding> Diagnose(const Facts& facts);

/// Adds findings about one object.
class Subject {
 public:
  Subject(const char* check, std::string object, std::vector<Finding>& findings)
      : check_(check), object_(std::move(object)), findings_(findings) {}

  void Ok(const std::string& cause) { Add(Verdict::kOk, cause, ""); }
  void Warn(const std::string& cause, const std::string& fix) {
    Add(Verdict::kWarning, cause, fix);
  }
  void Fail(const std::string& cause, const std::string& fix) { Add(Verdict::kFailed, cause, fix); }
  void Add(Verdict verdict, const std::string& cause, const std::string& fix) {
    findings_.push_back({verdict, check_, object_, cause, fix});
  }

 private:
  const char* const check_;
  const std::string object_;
  std::vector<Finding>& findings_;
};

// The parts of Diagnose(); each adds its findings.
void CheckDevices(const Facts& facts, std::vector<Finding>& findings);
void CheckScheduling(const Facts& facts, std::vector<Finding>& findings);
void CheckRuntimeDirectory(const Facts& facts, std::vector<Finding>& findings);
void CheckDaemon(const Facts& facts, std::vector<Finding>& findings);
void CheckAudio(const Facts& facts, std::vector<Finding>& findings);
void CheckWakeLocks(const Facts& facts, std::vector<Finding>& findings);
void CheckCaptures(const Facts& facts, std::vector<Finding>& findings);

/// Root sees what this user does not.
constexpr char kAsRoot[] = "sudo -E kvoxctl doctor";

/// What is wrong with a path if something else is expected: "is not there", "is a regular file".
std::string WhatIsThere(const PathFacts& path);

/// "user kvox"
std::string UserOf(const User& user);

/// A command that starts the daemon; with a new runtime directory if this one is unusable.
std::string StartCommand(const Facts& facts);

}  // namespace kvox::client
