// Sessions with a relay that was named.
#pragma once

#include "client/audio/sessions.h"
#include "client/verbs/shared.h"

namespace kvox::client {

/// Runs `session(kvox, options)` with the relay that `word` names. Call this before any thread
/// starts.
template <typename Session>
auto RunSession(const Context& context, const std::string& word, Session session) {
  RelaySession::BlockInterrupts();
  const ProcessorId id = LookUpRelay(context.daemon, word);
  try {
    return session(context.daemon.kvox(), SessionOptions{.processor = id.id,
                                                         .name = id.name,
                                                         .json = context.out.json(),
                                                         .wait = context.daemon.wait()});
  } catch (const SoundFileError& error) {
    throw Failure(kRefused, error.what());
  }
}

}  // namespace kvox::client
