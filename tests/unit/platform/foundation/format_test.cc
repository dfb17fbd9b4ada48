// The printf interpreter behind every log line and description.
#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "platform/foundation/format.h"
#include "sonorell/error.h"

namespace sonorell {
namespace {

struct Described {
  std::string description() const { return "described"; }
};

TEST(Format, ObjectsStringsAndNumbers) {
  EXPECT_EQ(stringWithFormat("%@_%lu_%lu", std::string("12345"), 0ul, 3ull), "12345_0_3");
  EXPECT_EQ(stringWithFormat("%d %ld %i", -5, -6l, 7), "-5 -6 7");
  EXPECT_EQ(stringWithFormat("%lu", UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(stringWithFormat("%f|%.2f|%5.1f", 1.5, 2.0 / 3, 3.25), "1.500000|0.67|  3.2");
  EXPECT_EQ(stringWithFormat("%s and %@", "c string", Described{}), "c string and described");
  EXPECT_EQ(stringWithFormat("%x %X %c %%", 255u, 255u, 'A'), "ff FF A %");
}

TEST(Format, AbsentObjectsPrintNullAndHoldersShowWhatTheyHold) {
  std::shared_ptr<Described> none;
  std::optional<std::string> absent;
  const char* nothing = nullptr;
  EXPECT_EQ(stringWithFormat("%@ %@ %@", none, absent, nothing), "(null) (null) (null)");
  EXPECT_EQ(stringWithFormat("%@ and %@", "one"), "one and (null)");
  EXPECT_EQ(stringWithFormat("%@ %d", std::make_shared<Described>(), std::optional<int>(7)),
            "described 7");
}

TEST(Format, MismatchedKindsAreConvertedWidthAppliesToObjectsAndUnknownsStay) {
  EXPECT_EQ(stringWithFormat("%d %f %@ %d", 3.9, 2, 42, true), "3 2.000000 42 1");
  EXPECT_EQ(stringWithFormat("[%-5@][%5@]", "ab", "cd"), "[ab   ][   cd]");
  EXPECT_EQ(stringWithFormat("%k %d", 1), "%k 1");
  EXPECT_EQ(stringWithFormat("trailing %", 1), "trailing %");
}

TEST(Format, ErrorsAndDictionariesDescribeThemselves) {
  auto error = Error::make("D", 7, "went wrong", nullptr);
  EXPECT_EQ(stringWithFormat("%@", error), "Error Domain=D Code=7 \"went wrong\"");
  Dictionary info{{"background", Value("YES")}};
  EXPECT_EQ(stringWithFormat("%@", info), "{\n    background = YES;\n}");
}

}  // namespace
}  // namespace sonorell
