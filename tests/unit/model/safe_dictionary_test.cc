#include "model/safe_dictionary.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <string>

#include "model/date_rules.h"
#include "model/functional_additions.h"

namespace sonorell {
namespace {

using S = QSOSafeDictionary;
using namespace std::chrono;

int64_t unixSeconds(const Date& d) { return duration_cast<seconds>(d.time_since_epoch()).count(); }

void useTimeZone(const char* zone) {
  ::setenv("TZ", zone, 1);
  ::tzset();
}

Dictionary sample() {
  return Dictionary{{"text", "hello"},
                    {"int", int64_t{42}},
                    {"float", 2.75},
                    {"yes", true},
                    {"null", Value()},
                    {"list", Array{"a", "b"}},
                    {"digits", "1234"},
                    {"word", "true"},
                    {"YES", "YES"},
                    {"no", "no"},
                    {"big", uint64_t{18446744073709551615ULL}},
                    {"map", Dictionary{}},
                    {"neg", " -5kg"},
                    {"zeros", "007"}};
}

// --- Strings, numbers, arrays: the value if of the right kind, else the default ---

TEST(SafeReaders, StringsNumbersAndArraysOnlyFromTheirOwnKind) {
  Dictionary d = sample();
  EXPECT_EQ(S::safeStringForKey(d, "text"), "hello");
  EXPECT_EQ(S::safeNumberForKey(d, "int"), Value(int64_t{42}));
  EXPECT_EQ(S::safeNumberForKey(d, "float"), Value(2.75));
  EXPECT_EQ(S::safeArrayForKey(d, "list"), (Array{"a", "b"}));
  for (const char* key : {"int", "null", "missing", "list"}) {
    EXPECT_EQ(S::safeStringForKey(d, key), "") << key;
  }
  for (const char* key : {"digits", "null", "missing"}) {
    EXPECT_EQ(S::safeNumberForKey(d, key), Value(int64_t{0})) << key;
  }
  for (const char* key : {"text", "map", "missing"}) {
    EXPECT_TRUE(S::safeArrayForKey(d, key).empty()) << key;
  }
}

// --- Booleans and integers read numbers and strings the platform's way ---

TEST(SafeReaders, BoolReadsNumbersAndWords) {
  Dictionary d = sample();
  EXPECT_TRUE(S::safeBoolForKey(d, "yes"));
  EXPECT_TRUE(S::safeBoolForKey(d, "int"));
  EXPECT_TRUE(S::safeBoolForKey(d, "word"));
  EXPECT_TRUE(S::safeBoolForKey(d, "YES"));
  EXPECT_TRUE(S::safeBoolForKey(d, "zeros"));  // leading zeros skipped, then 7
  EXPECT_FALSE(S::safeBoolForKey(d, "no"));
  EXPECT_FALSE(S::safeBoolForKey(d, "null"));
  EXPECT_FALSE(S::safeBoolForKey(d, "missing"));
  EXPECT_FALSE(S::safeBoolForKey(d, "list"));
  EXPECT_FALSE(S::safeBoolForKey(Dictionary{{"z", int64_t{0}}}, "z"));
  EXPECT_FALSE(S::safeBoolForKey(Dictionary{{"z", "0"}}, "z"));
}

TEST(SafeReaders, IntegerReadsNumbersAndLeadingDigits) {
  Dictionary d = sample();
  EXPECT_EQ(S::safeIntegerForKey(d, "digits"), 1234);
  EXPECT_EQ(S::safeIntegerForKey(d, "int"), 42);
  EXPECT_EQ(S::safeIntegerForKey(d, "float"), 2);
  EXPECT_EQ(S::safeIntegerForKey(d, "neg"), -5);
  EXPECT_EQ(S::safeIntegerForKey(d, "big"), INT64_MAX);
  EXPECT_EQ(S::safeIntegerForKey(d, "text"), 0);
  EXPECT_EQ(S::safeIntegerForKey(d, "null"), 0);
  EXPECT_EQ(S::safeIntegerForKey(d, "missing"), 0);
  EXPECT_EQ(S::safeIntegerForKey(Dictionary{{"x", "99999999999999999999"}}, "x"), INT64_MAX);
  EXPECT_EQ(S::safeIntegerForKey(Dictionary{{"x", "-99999999999999999999"}}, "x"), INT64_MIN);
}

// --- Dates: format in the device's time zone, the SS quirk, empty versus 1970 ---

TEST(DateRules, StreetDateIsMidnightInTheDeviceTimeZone) {
  useTimeZone("America/New_York");
  auto date = S::safeDateForKey({{"d", "2017-03-04"}}, "d", kStreetDateFormat);
  ASSERT_TRUE(date.has_value());
  EXPECT_EQ(unixSeconds(*date), 1488603600);  // 2017-03-04T05:00:00Z
  useTimeZone("Asia/Tokyo");
  date = S::safeDateForKey({{"d", "2017-03-04"}}, "d", kStreetDateFormat);
  ASSERT_TRUE(date.has_value());
  EXPECT_EQ(unixSeconds(*date), 1488553200);  // 2017-03-03T15:00:00Z
}

TEST(DateRules, MismatchGivesEmptyAndNonStringGives1970) {
  useTimeZone("UTC");
  EXPECT_FALSE(S::safeDateForKey({{"d", "04/03/2017"}}, "d", kStreetDateFormat).has_value());
  EXPECT_FALSE(S::safeDateForKey({{"d", "2017-02-30"}}, "d", kStreetDateFormat).has_value());
  EXPECT_FALSE(S::safeDateForKey({{"d", "2017-03-04 junk"}}, "d", kStreetDateFormat).has_value());
  EXPECT_FALSE(S::safeDateForKey({{"d", ""}}, "d", kStreetDateFormat).has_value());
  EXPECT_EQ(S::safeDateForKey({}, "d", kStreetDateFormat), Date{});
  EXPECT_EQ(S::safeDateForKey({{"d", int64_t{5}}}, "d", kStreetDateFormat), Date{});
  EXPECT_EQ(S::safeDateForKey({{"d", Value()}}, "d", kStreetDateFormat), Date{});
}

// The modified-date format's hundredths quirk: audiobook_json_helper_test.
TEST(DateRules, AnSsPatternReadsSecondsAndQuotedLiteralsMustMatch) {
  useTimeZone("UTC");
  auto date = dateFromString("2017-03-04T10:20:30", "yyyy-MM-dd'T'HH:mm:ss");
  ASSERT_TRUE(date.has_value());
  EXPECT_EQ(unixSeconds(*date), 1488622830);
  EXPECT_FALSE(dateFromString("2017-03-04X10:20:30", "yyyy-MM-dd'T'HH:mm:ss").has_value());
  EXPECT_FALSE(dateFromString("2017-03-04T24:00:00", "yyyy-MM-dd'T'HH:mm:ss").has_value());
}

// --- map ---

TEST(MapHelper, CollectsResultsInOrderWithIndexesUntilStopped) {
  std::vector<std::string> words{"a", "bb", "ccc"};
  auto out =
      map(words, [](const std::string& w, size_t i, bool&) { return w + std::to_string(i); });
  EXPECT_EQ(out, (std::vector<std::string>{"a0", "bb1", "ccc2"}));
  EXPECT_TRUE(map(std::vector<int>{}, [](int v, size_t, bool&) { return v; }).empty());
  int visited = 0;
  auto stopped = map(std::vector<int>{1, 2, 3, 4}, [&](int v, size_t, bool& stop) {
    ++visited;
    stop = v == 2;
    return v * 10;
  });
  EXPECT_EQ(stopped, (std::vector<int>{10, 20})) << "the stopping result is kept";
  EXPECT_EQ(visited, 2);
}

}  // namespace
}  // namespace sonorell
