// Which signals a program of ours may hold back, to take them between its steps.
#pragma once

#include <signal.h>

#include <initializer_list>

namespace kvox::client {

/// Those of the signals that this process was not told to ignore. One that it was, as nohup tells
/// it, has to be left alone: held back, it would come even so.
sigset_t NotIgnored(std::initializer_list<int> numbers);

/// Holds these back from every thread. To be called before any thread starts; answers which they
/// are.
sigset_t HoldSignals(std::initializer_list<int> numbers);

/// Lets the alarm through that ends waits: whoever started this process may have held it back.
void LetAlarmThrough();

}  // namespace kvox::client
