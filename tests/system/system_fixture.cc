#include "tests/system/system_fixture.h"

#include <nlohmann/json.hpp>

namespace kvox {

nlohmann::json SystemTest::Json(const std::string& line) {
  const std::string out = Do(line + " --json");
  nlohmann::json document = nlohmann::json::parse(out, nullptr, false);
  if (!document.is_object()) document = nlohmann::json::object();
  EXPECT_EQ(document["schema"], 1) << line << "\n" << out;
  return document;
}

nlohmann::json SystemTest::Stats() {
  const auto path = directory_ / "stats.json";
  std::filesystem::remove(path);
  simulator_->Signal(SIGUSR1);
  nlohmann::json stats;
  EXPECT_TRUE(WaitFor([&] {
    stats = nlohmann::json::parse(ReadText(path), nullptr, false);
    return !stats.is_discarded();
  }));
  return stats;
}

int64_t SystemTest::Figure(const std::string& tap, const std::string& key) {
  const nlohmann::json stats = Stats();
  for (const auto& row : stats["taps"]) {
    if (row["tap"] == tap) return row[key].get<int64_t>();
  }
  ADD_FAILURE() << "no tap " << tap;
  return -1;
}

}  // namespace kvox
