#include "foundation/KyoStringUtilities.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <vector>

#include "foundation/KyoCollections.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoHostTime.h"
#include "support/Waiting.h"

using sonto::test::LogCapture;

// Rounding and carrying around every unit boundary: what an operator reads on a
// running cue.
TEST(KyoTimeNotation, FormatsWithRoundingAndCarry) {
  struct Case {
    double seconds;
    int places;
    bool showHours;
    bool forcePositive;
    const char* text;
  };
  const double year = 31536000.0, inf = std::numeric_limits<double>::infinity();
  const Case cases[] = {
      {0.0, 2, false, true, "00:00.00"},          {65.5, 2, false, true, "01:05.50"},
      {3661.25, 2, false, true, "01:01:01.25"},   {3661.25, 2, true, true, "01:01:01.25"},
      {5.0, 2, true, true, "00:00:05.00"},        {-2.0, 2, false, true, "00:00.00"},
      {-2.0, 2, false, false, "-00:02.00"},       {-3661.5, 1, true, false, "-01:01:01.5"},
      {0.999, 2, false, true, "00:01.00"},        {0.994, 2, false, true, "00:00.99"},
      {9.996, 2, false, true, "00:10.00"},        {59.999, 2, false, true, "01:00.00"},
      {599.999, 2, false, true, "10:00.00"},      {3599.999, 2, false, true, "01:00:00.00"},
      {3599.999, 3, false, true, "59:59.999"},    {35999.999, 2, false, true, "10:00:00.00"},
      {1.5, 0, false, true, "00:02"},             {1.49, 0, false, true, "00:01"},
      {59.5, 0, false, true, "01:00"},            {9.0, 0, false, true, "00:09"},
      {10.0, 0, false, true, "00:10"},            {600.0, 2, false, true, "10:00.00"},
      {0.05, 1, false, true, "00:00.1"},          {0.0001, 4, false, true, "00:00.0001"},
      {0.123456, 6, false, true, "00:00.123456"}, {360000.0, 2, false, true, "100:00:00.00"},
      {year, 2, false, true, "8760:00:00.00"},    {year * 10, 2, false, true, "8760:00:00.00"},
      {inf, 2, false, true, "8760:00:00.00"},     {-inf, 2, false, true, "00:00.00"},
      {-inf, 2, false, false, "-8760:00:00.00"},  {std::nan(""), 2, false, false, "00:00.00"},
      {1.25, -3, false, true, "00:01"},  // places below 0 read as 0
  };
  for (const auto& c : cases) {
    EXPECT_EQ(stringByFormattingSeconds(c.seconds, c.places, c.showHours, c.forcePositive), c.text)
        << c.seconds << " at " << c.places << " places";
  }
  EXPECT_EQ(stringByFormattingSeconds(65.5), "01:05.50");
  EXPECT_EQ(stringByFormattingSeconds(65.56, 1), "01:05.6");
  EXPECT_EQ(stringByFormattingSeconds(-65.5, 2, true), "00:00:00.00");
}

// Every hundredth across the first hour must read back to itself and increase.
TEST(KyoTimeNotation, RoundTripsEveryHundredthOfTheFirstHour) {
  std::string previous;
  for (long i = 0; i <= 360000; ++i) {
    const double t = double(i) / 100.0;
    std::string text = stringByFormattingSeconds(t, 2);
    ASSERT_NEAR(secondsFromFormattedString(text), t, 1e-6) << text;
    if (!previous.empty() && text.size() == previous.size()) {
      ASSERT_LT(previous, text);
    }
    previous = text;
  }
}

TEST(KyoTimeNotation, ParsesOddInput) {
  struct Case {
    const char* text;
    double seconds;
  };
  // Left of the hours is ignored; a sign inside counts only as a magnitude.
  const Case cases[] = {
      {"", 0.0},         {"1:05.50", 65.5},  {"-1:05.50", -65.5},  {"90", 90.0},          {"1:2:3", 3723.0},
      {"a:b", 0.0},      {"9:1:2:3", 3723.0}, {"1:-2:3", 3723.0},  {"-1:-2:-3", -3723.0}, {" 2:05", 125.0},
      {":30", 30.0},     {"5:", 300.0},      {"::", 0.0},          {"1.5e1", 15.0},       {"inf", 0.0},
      {"nan:30", 30.0},  {"0x10", 0.0},      {"12abc", 12.0},      {"1,5", 1.0},          {"+7", 7.0},
      {"1e999", 0.0},    {"00:00:00.00", 0.0}, {"8760:00:00.00", 31536000.0},
  };
  for (const auto& c : cases) EXPECT_DOUBLE_EQ(secondsFromFormattedString(c.text), c.seconds) << c.text;
}

TEST(KyoStringUtilities, DotNotation) {
  LogCapture log;
  EXPECT_EQ(addressInDotNotation(0xC0A80101u), "192.168.1.1");
  EXPECT_EQ(addressInDotNotation(0xFFFFFFFFu), "255.255.255.255");
  EXPECT_EQ(addressInDotNotation(0), "0.0.0.0");
  EXPECT_EQ(addressFromDotNotation("192.168.1.1"), 0xC0A80101u);
  EXPECT_EQ(addressFromDotNotation("255.255.255.0"), 0xFFFFFF00u);
  EXPECT_TRUE(log.lines().empty());
  for (const char* bad : {"0.1.2.3", "1.2.3", "1.2.3.4.5", "", "x.1.2.3", "...."}) {
    log.clear();
    EXPECT_EQ(addressFromDotNotation(bad), 0u) << bad;
    ASSERT_EQ(log.lines().size(), 1u) << bad;
    EXPECT_EQ(log.lines()[0], std::string("Error: Not an IPv4 address in dot notation: ") + bad);
  }
}

TEST(KyoStringUtilities, EllipsisTruncationCountsCharactersNotBytes) {
  const struct {
    const char* text;
    size_t length;
    const char* result;
  } cases[] = {
      {"Intro", 5, "Intro"},
      {"Intro music", 5, "Intr\u2026"},
      {"Intro music", 1, "\u2026"},
      {"Intro music", 0, ""},
      {"", 0, ""},
      // "Überraschung" has 12 characters, 13 bytes: the cut must not split the Ü.
      {"\u00DCberraschung", 12, "\u00DCberraschung"},
      {"\u00DCberraschung", 2, "\u00DC\u2026"},
      {"\u00E9\u00E9\u00E9", 2, "\u00E9\u2026"},
      {"\u00E9\u00E9\u00E9\u00E9", 3, "\u00E9\u00E9\u2026"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(stringWithEllipsisByTruncatingToLength(c.text, c.length), c.result) << c.text << " to " << c.length;
}

TEST(KyoStringUtilities, MSCFields) {
  LogCapture log;
  const uint8_t full[] = {'1', '2', '.', '5', 0, '3', 0, '7', '.', '1'};
  auto s = stringsFromMSCByteDataRepresentingNumberListPath(full, sizeof full);
  ASSERT_TRUE(s);
  EXPECT_EQ(s->Q_number, "12.5");
  EXPECT_EQ(s->Q_list, "3");
  EXPECT_EQ(s->Q_path, "7.1");

  const uint8_t odd[] = {'1', 'x', '2', 0};
  s = stringsFromMSCByteDataRepresentingNumberListPath(odd, sizeof odd);
  ASSERT_TRUE(s);
  EXPECT_EQ(s->Q_number, "12");
  EXPECT_EQ(s->Q_list, "");
  EXPECT_EQ(s->Q_path, "");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0], "Warning: stringFromMSCByteData: unrecognized byte value 120");

  // Only the given length is read, even without a terminating zero.
  s = stringsFromMSCByteDataRepresentingList(full, 3);
  ASSERT_TRUE(s);
  EXPECT_EQ(s->Q_list, "12.");
  EXPECT_EQ(s->Q_number, "");
  EXPECT_FALSE(stringsFromMSCByteDataRepresentingList(nullptr, 4));
  EXPECT_FALSE(stringsFromMSCByteDataRepresentingNumberListPath(full, 0));
}

TEST(KyoStringUtilities, UUIDsAreWellFormedAndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    std::string u = stringUUID();
    ASSERT_EQ(u.size(), 36u);
    for (size_t k : {8u, 13u, 18u, 23u}) ASSERT_EQ(u[k], '-');
    EXPECT_EQ(u[14], '4');
    EXPECT_EQ(u.find_first_not_of("0123456789ABCDEF-"), std::string::npos) << u;
    seen.insert(u);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(KyoCollections, MoveObjectAt) {
  struct Case {
    size_t from, to;
    std::vector<char> result;
  };
  // Up ends at to - 1, down at to; past the end appends; an invalid from does nothing.
  const Case cases[] = {{0, 2, {'b', 'a', 'c'}}, {2, 0, {'c', 'a', 'b'}},  {1, 1, {'a', 'b', 'c'}},
                        {0, 3, {'b', 'c', 'a'}}, {0, 99, {'b', 'c', 'a'}}, {2, 3, {'a', 'b', 'c'}},
                        {3, 0, {'a', 'b', 'c'}}, {1, 0, {'b', 'a', 'c'}}};
  for (const auto& c : cases) {
    std::vector<char> v{'a', 'b', 'c'};
    moveObjectAt(v, c.from, c.to);
    EXPECT_EQ(v, c.result) << c.from << " to " << c.to;
  }
  // Move-only elements survive the move.
  std::vector<std::unique_ptr<int>> owned;
  for (int i = 0; i < 3; ++i) owned.push_back(std::make_unique<int>(i));
  moveObjectAt(owned, 2, 0);
  ASSERT_TRUE(owned[0] && owned[1] && owned[2]);
  EXPECT_EQ(*owned[0], 2);
  EXPECT_EQ(*owned[2], 1);
}

TEST(KyoCollections, IdentityAndAppendFromIndex) {
  auto a = std::make_shared<int>(1);
  auto b = std::make_shared<int>(1);
  std::vector<std::shared_ptr<int>> v{a};
  EXPECT_TRUE(containsObjectIdenticalTo(v, a));
  EXPECT_TRUE(containsObjectIdenticalTo(v, a.get()));
  EXPECT_FALSE(containsObjectIdenticalTo(v, b));  // equal value, other object
  EXPECT_EQ(indexOfObjectIdenticalTo(v, b), NSNotFound);

  std::vector<int> x{1, 2};
  addObjectsFromArray(x, std::vector<int>{7, 8, 9}, 1);
  EXPECT_EQ(x, (std::vector<int>{1, 2, 8, 9}));
  addObjectsFromArray(x, std::vector<int>{7, 8, 9}, 3);
  addObjectsFromArray(x, std::vector<int>{7, 8, 9}, 40);
  EXPECT_EQ(x.size(), 4u);
}

TEST(KyoHostTime, ConvertsNanosecondTicks) {
  EXPECT_EQ(KyoHostTimeFromSeconds(1.0), 1000000000u);
  EXPECT_EQ(KyoHostTimeFromSeconds(0.5), 500000000u);
  EXPECT_EQ(KyoHostTimeFromSeconds(86400.0), 86400000000000u);
  EXPECT_EQ(KyoHostTimeFromSeconds(-1.0), 0u);
  EXPECT_EQ(KyoHostTimeFromSeconds(std::nan("")), 0u);
  EXPECT_EQ(KyoHostTimeFromSeconds(1e30), UINT64_MAX);
  EXPECT_DOUBLE_EQ(KyoSecondsFromHostTime(1500000000u), 1.5);
  for (uint64_t ticks : {0ull, 1ull, 999ull, 123456789012ull})
    EXPECT_EQ(KyoHostTimeFromSeconds(KyoSecondsFromHostTime(ticks)), ticks);
}

TEST(KyoEnvironment, IPAddressesOfThisMachine) {
  const auto addresses = KyoEnvironment::ipAddresses();
  // Every machine has its loopback interface.
  bool loopback = false;
  for (const auto& ip : addresses) {
    const uint32_t address = addressFromDotNotation(ip.address);
    const uint32_t mask = addressFromDotNotation(ip.netmask);
    EXPECT_EQ(addressFromDotNotation(ip.broadcast), address | ~mask) << ip.name;
    EXPECT_EQ(addressInDotNotation(address), ip.address);
    if (ip.address == "127.0.0.1") {
      loopback = true;
      EXPECT_EQ(ip.netmask, "255.0.0.0");
      EXPECT_EQ(ip.broadcast, "127.255.255.255");
    }
  }
  EXPECT_TRUE(loopback);
}
