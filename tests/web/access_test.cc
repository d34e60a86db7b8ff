#include "web/server/access.h"

#include <gtest/gtest.h>

namespace kvox::web {
namespace {

TEST(AccessTest, OnlyNamesOfThisMachineAndThoseThatWereGivenAreKnown) {
  for (const char* host : {"localhost", "LocalHost:8490", "127.0.0.1", "127.0.0.1:1", "[::1]:8490",
                           "audio.example:443", "Audio.Example"}) {
    EXPECT_TRUE(IsKnownHost(host, {"audio.example"})) << host;
  }
  for (const char* host : {"", ":8490", "evil.example", "localhost.evil.example", "127.0.0.1.evil",
                           "audio.example.evil", "[::1].evil", "[::2]:8490", "localhost\t"}) {
    EXPECT_FALSE(IsKnownHost(host, {"audio.example"})) << host;
  }
}

TEST(AccessTest, AnOriginIsThatOfTheHostOrThereIsNone) {
  EXPECT_TRUE(IsOwnOrigin("", "localhost:8490"));
  EXPECT_TRUE(IsOwnOrigin("http://localhost:8490", "localhost:8490"));
  EXPECT_TRUE(IsOwnOrigin("https://audio.example", "audio.example"));
  for (const char* origin : {"null", "http://localhost", "http://localhost:8491", "localhost:8490",
                             "http://localhost:8490.evil.example", "file://", "http://"}) {
    EXPECT_FALSE(IsOwnOrigin(origin, "localhost:8490")) << origin;
  }
}

TEST(AccessTest, ATokenIsItselfAndNothingElse) {
  const std::string token = MakeToken();
  EXPECT_EQ(token.size(), 32u);
  EXPECT_NE(token, MakeToken());
  EXPECT_TRUE(IsToken(token, token));
  EXPECT_FALSE(IsToken(token.substr(1), token));
  EXPECT_FALSE(IsToken(token + "0", token));
  EXPECT_FALSE(IsToken("", token));
  EXPECT_FALSE(IsToken("", ""));
}

}  // namespace
}  // namespace kvox::web
