// Thousands of flaps and hundreds of recoveries in a row: nothing may grow with them.
#pragma once

#include "tests/campaign/campaign.h"

namespace kvox::campaign {

/// Prints a row now and then and the outcome. Of the options it looks at seed, repeat and logs.
/// Answers the exit status: 0 passed, 1 failed. Throws std::runtime_error when it could not begin.
int RunEndurance(const CampaignOptions& options);

}  // namespace kvox::campaign
