#include <android/binder_parcel_utils.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/status.h"
#include "tests/platform/parcel_bytes.h"

namespace kvox::binder {
namespace {

using ndk::AParcel_readData;
using ndk::AParcel_writeData;
using std::string;

template <typename T>
string Written(const T& value) {
  AParcel parcel;
  EXPECT_EQ(AParcel_writeData(&parcel, value), STATUS_OK);
  return Hex(parcel);
}

template <typename T>
binder_status_t StatusOfReading(std::string_view hex) {
  const AParcel parcel = Received(hex);
  T value{};
  return AParcel_readData(&parcel, &value);
}

template <typename T>
void ExpectRead(std::string_view hex, const T& value) {
  const AParcel parcel = Received(hex);
  T read{};
  ASSERT_EQ(AParcel_readData(&parcel, &read), STATUS_OK) << hex;
  EXPECT_EQ(read, value) << hex;
  EXPECT_EQ(parcel.BytesLeft(), 0u) << hex;
}

template <typename T>
void ExpectBothWays(const T& value, std::string_view hex) {
  EXPECT_EQ(Written(value), Normal(hex));
  ExpectRead(hex, value);
}

TEST(Parcel, EveryKindOfValueHasItsBytes) {
  ExpectBothWays(int32_t{-2}, "feffffff");
  ExpectBothWays(true, "01000000");
  ExpectBothWays(int8_t{-1}, "ffffffff");
  ExpectBothWays(1.0f, "0000803f");
  ExpectBothWays(string(), "00000000 00000000");
  ExpectBothWays(string("a"), "01000000 61000000");
  ExpectBothWays(string("h\xc3\xa9"), "02000000 6800e900 00000000");
  ExpectBothWays(string("\xe2\x82\xac"), "01000000 ac200000");
  ExpectBothWays(string("\xf0\x9f\x98\x80"), "02000000 3dd800de 00000000");
  ExpectBothWays(string("a\0b", 3), "03000000 61000000 62000000");
  ExpectBothWays(std::vector<uint8_t>{1, 2, 3, 4, 5}, "05000000 01020304 05000000");
  ExpectBothWays(std::vector<uint8_t>{}, "00000000");
  ExpectBothWays(std::vector<float>{1.0f, 2.0f}, "02000000 0000803f 00000040");
  ExpectBothWays(std::vector<float>{}, "00000000");
  ExpectBothWays(std::vector<string>{"a", ""}, "02000000 01000000 61000000 00000000 00000000");
}

TEST(Parcel, TextIsReadAsLooselyAsThePlatformDoes) {
  EXPECT_EQ(Written(string("\x80\xbf")), Normal("02000000 8000bf00 00000000"))
      << "stray bytes pass";
  EXPECT_EQ(Written(string("\xc3(")), Normal("01000000 e8000000")) << "not checked";
  for (const char* cut : {"x\xc3", "x\xe2\x82", "\xf0\x9f\x98", "\xff"}) {
    AParcel parcel;
    EXPECT_EQ(AParcel_writeData(&parcel, string(cut)), STATUS_BAD_VALUE);
  }
  // Unpaired surrogates are dropped.
  ExpectRead("04000000 61003dd8 620000de 00000000", string("ab"));
}

TEST(Parcel, HostileBytesAreRefused) {
  using Strings = std::vector<string>;
  const struct {
    const char* hex;
    binder_status_t (*read)(std::string_view);
    binder_status_t status;
  } rows[] = {
      {"", StatusOfReading<int32_t>, STATUS_NOT_ENOUGH_DATA},
      {"010000", StatusOfReading<bool>, STATUS_NOT_ENOUGH_DATA},
      {"", StatusOfReading<string>, STATUS_NOT_ENOUGH_DATA},
      {"ffffffff", StatusOfReading<string>, STATUS_UNEXPECTED_NULL},
      {"feffffff 61000000", StatusOfReading<string>, STATUS_UNEXPECTED_NULL},
      {"02000000 61006200", StatusOfReading<string>, STATUS_UNEXPECTED_NULL},  // no room for the 0
      {"01000000 61006200", StatusOfReading<string>, STATUS_UNEXPECTED_NULL},  // no 0
      {"ffffff7f 61000000", StatusOfReading<string>, STATUS_UNEXPECTED_NULL},
      {"feffffff", StatusOfReading<std::vector<float>>, STATUS_BAD_VALUE},
      {"ffffffff", StatusOfReading<std::vector<float>>, STATUS_UNEXPECTED_NULL},
      {"ffffffff", StatusOfReading<std::vector<uint8_t>>, STATUS_UNEXPECTED_NULL},
      {"ffffff7f 00000000", StatusOfReading<std::vector<float>>, STATUS_NO_MEMORY},
      {"02000000 00000000", StatusOfReading<std::vector<float>>, STATUS_NO_MEMORY},  // cut short
      {"05000000 01020304", StatusOfReading<std::vector<uint8_t>>, STATUS_NO_MEMORY},
      {"ffffffff", StatusOfReading<Strings>, STATUS_NO_MEMORY},
      {"05000000 00000000", StatusOfReading<Strings>, STATUS_NO_MEMORY},
      {"02000000 00000000", StatusOfReading<Strings>, STATUS_NO_MEMORY},  // no room for two
      {"02000000 00000000 00000000", StatusOfReading<Strings>, STATUS_NOT_ENOUGH_DATA},
      {"01000000 ffffffff", StatusOfReading<Strings>, STATUS_UNEXPECTED_NULL},
  };
  for (const auto& row : rows) EXPECT_EQ(row.read(row.hex), row.status) << row.hex;
}

TEST(Parcel, ReferencesAreReadOnlyWhereTheSenderNamedOne) {
  const struct {
    const char* hex;
    binder_status_t status;
  } rows[] = {
      {"00000000 00000000", STATUS_OK},  // null
      {"00000000 0c000000", STATUS_BAD_TYPE},
      {"01000000 02000000 00000000 0c000000", STATUS_BAD_TYPE},  // no object at that place
      {"02000000 02000000 00000000 0c000000", STATUS_BAD_TYPE},
      {"00000000", STATUS_NOT_ENOUGH_DATA},
      {"01000000 02000000 00000000", STATUS_NOT_ENOUGH_DATA},
  };
  for (const auto& row : rows) {
    const AParcel parcel = Received(row.hex);
    AIBinder* binder = nullptr;
    EXPECT_EQ(AParcel_readStrongBinder(&parcel, &binder), row.status) << row.hex;
    EXPECT_EQ(binder, nullptr);
  }
  AParcel parcel;
  ASSERT_EQ(AParcel_writeStrongBinder(&parcel, nullptr), STATUS_OK);
  EXPECT_EQ(Hex(parcel), Normal("00000000 00000000"));
}

// The status at the head of a reply.

string Header(AStatus* status) {
  const ndk::ScopedAStatus owner(status);
  AParcel parcel;
  EXPECT_EQ(AParcel_writeStatusHeader(&parcel, status), STATUS_OK);
  return Hex(parcel);
}

TEST(StatusHeader, HoldsExceptionMessageAndCode) {
  EXPECT_EQ(Header(AStatus_newOk()), "00000000");
  EXPECT_EQ(Header(AStatus_fromExceptionCode(EX_ILLEGAL_STATE)),
            Normal("fbffffff 00000000 00000000 00000000"));
  EXPECT_EQ(Header(AStatus_fromServiceSpecificErrorWithMessage(7, "a")),
            Normal("f8ffffff 01000000 61000000 00000000 07000000"));
  const ndk::ScopedAStatus failed(AStatus_fromStatus(STATUS_BAD_INDEX));
  AParcel parcel;
  EXPECT_EQ(AParcel_writeStatusHeader(&parcel, failed.get()), STATUS_BAD_INDEX);
  EXPECT_EQ(AParcel_writeStatusHeader(&parcel, nullptr), STATUS_UNEXPECTED_NULL);
  EXPECT_TRUE(parcel.data().empty());
}

TEST(StatusHeader, IsReadWithWhateverStandsBeforeIt) {
  const struct {
    const char* hex;
    binder_status_t status;
    binder_exception_t exception;
    int32_t code;
  } rows[] = {
      {"00000000", STATUS_OK, EX_NONE, 0},
      {"f8ffffff 01000000 61000000 00000000 07000000", STATUS_OK, EX_SERVICE_SPECIFIC, 7},
      {"f8ffffff 01000000 61000000 0c000000 aaaaaaaa aaaaaaaa 07000000", STATUS_OK,
       EX_SERVICE_SPECIFIC, 7},
      {"80ffffff 08000000 aaaaaaaa", STATUS_OK, EX_NONE, 0},
      {"81ffffff 08000000 aaaaaaaa fbffffff 00000000 00000000 00000000", STATUS_OK,
       EX_ILLEGAL_STATE, 0},
      {"63000000 00000000 00000000 00000000", STATUS_OK, EX_TRANSACTION_FAILED, 0},
      {"", STATUS_NOT_ENOUGH_DATA, EX_NONE, 0},
      {"fbffffff ffffffff", STATUS_UNEXPECTED_NULL, EX_NONE, 0},
      {"fbffffff 00000000 00000000 ffffff7f", STATUS_UNKNOWN_ERROR, EX_NONE, 0},
      {"fbffffff 00000000 00000000 02000000", STATUS_UNKNOWN_ERROR, EX_NONE, 0},
  };
  for (const auto& row : rows) {
    const AParcel parcel = Received(row.hex);
    ndk::ScopedAStatus status;
    ASSERT_EQ(AParcel_readStatusHeader(&parcel, status.getR()), row.status) << row.hex;
    if (row.status != STATUS_OK) continue;
    EXPECT_EQ(status.getExceptionCode(), row.exception) << row.hex;
    EXPECT_EQ(status.getServiceSpecificError(), row.code) << row.hex;
    EXPECT_EQ(parcel.BytesLeft(), 0u) << row.hex;
  }
}

}  // namespace
}  // namespace kvox::binder
