// What the facts mean for the daemon's work. Pure.
#pragma once

#include <string>
#include <vector>

#include "client/doctor/facts.h"

namespace kvox::client {

enum class Verdict { kOk, kWarning, kFailed };

struct Finding {
  Verdict verdict = Verdict::kOk;
  const char* check = "";  // "control": the same word in every release
  std::string object;      // "control device /dev/xdv-kvox_control"
  std::string cause;       // what is wrong with it, or what it is
  std::string fix = {};    // a command to type; "" where nothing is to be done
};

/// "ok", "warning", "failed"
const char* NameOf(Verdict verdict);

/// "failed   OBJECT: CAUSE  fix: COMMAND"
std::string LineOf(const Finding& finding);

/// The same line with its verdict in colour.
std::string Painted(const std::string& line);

/// A finding for whatever was looked at. A failure keeps audio or clients away; a warning may cost
/// something, or is nothing to a host without a co-processor.
std::vector<Finding> Judge(const Facts& facts);

// Parts of it, one a subject; each adds its findings.
void JudgeDevices(const Facts& facts, std::vector<Finding>& findings);
void JudgeScheduling(const Facts& facts, std::vector<Finding>& findings);
void JudgeRuntimeDirectory(const Facts& facts, std::vector<Finding>& findings);
void JudgeDaemon(const Facts& facts, std::vector<Finding>& findings);
void JudgeWakeLocks(const Facts& facts, std::vector<Finding>& findings);
void JudgeCaptures(const Facts& facts, std::vector<Finding>& findings);

/// Sees what this user does not.
constexpr char kAsRoot[] = "sudo -E kvoxctl doctor";

/// What is wrong with a path where something else is wanted: "is not there", "is a regular file".
std::string WhatIsThere(const PathFacts& path);

/// "user kvox"
std::string UserOf(const Person& person);

/// A command that starts the daemon; with a runtime directory of its own where this one is of no
/// use.
std::string StartCommand(const Facts& facts);

}  // namespace kvox::client
