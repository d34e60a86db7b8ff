// A client that asks for what the co-processor refused while the daemon set it up again.
#pragma once

#include "tests/campaign/asker.h"
#include "tests/campaign/audio_check.h"

namespace kvox::campaign {

/// One thread.
class Restorer {
 public:
  explicit Restorer(Shared& shared) : shared_(shared), asker_(shared, "restorer") {}

  /// Asks for the tap points of these streams as the model has them, or of all when none are given.
  /// Nobody else may ask for them meanwhile.
  void AskAgain(const StreamList& streams);

 private:
  void AskAgain(const Stream& stream, const TapModel& tap);

  Shared& shared_;
  Asker asker_;
};

}  // namespace kvox::campaign
