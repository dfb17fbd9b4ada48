// Values, errors, the notification centre, the Library directory rule and user defaults.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "platform/foundation/library_directory.h"
#include "platform/foundation/user_defaults.h"
#include "sonorell/error.h"
#include "sonorell/notification_center.h"
#include "sonorell/value.h"
#include "support/temp_library.h"

namespace sonorell {
namespace {

namespace fs = std::filesystem;

TEST(Values, NumbersConvertBetweenKindsAndOtherKindsDoNot) {
  EXPECT_EQ(Value(uint64_t{18446744073709551615ull}).asUInt(), 18446744073709551615ull);
  EXPECT_EQ(Value(-3).asInt(), -3);
  EXPECT_EQ(Value(2.75).asInt(), 2);
  EXPECT_EQ(Value(true).asInt(), 1);
  EXPECT_EQ(Value("12").asInt(), std::nullopt);
  EXPECT_EQ(Value(12).asString(), std::nullopt);
  EXPECT_TRUE(Value().isNull());
  EXPECT_NE(Value(1), Value(uint64_t{1})) << "kinds are part of equality";
  EXPECT_EQ(Value(Array{Value("a"), Value(1)}), Value(Array{Value("a"), Value(1)}));
}

TEST(Errors, DescriptionUnderlyingErrorAndPosixText) {
  auto inner = Error::posix(28);
  EXPECT_EQ(inner->domain, kPOSIXErrorDomain);
  EXPECT_EQ(inner->code, 28);
  EXPECT_EQ(inner->localizedDescription(), "No space left on device");
  auto outer = Error::make("io.sonorell.Sonorell", 18000, "no space", inner);
  EXPECT_EQ(outer->underlyingError(), inner);
  EXPECT_EQ(Error::make("D", 1)->localizedDescription(),
            "The operation couldn't be completed. (D error 1.)");
  EXPECT_EQ(Value(outer), Value(Error::make("io.sonorell.Sonorell", 18000, "no space", inner)));
}

TEST(NotificationCentre, ObserversByNameAndForAllAndOneRemovingItselfWhileCalled) {
  auto& center = NotificationCenter::defaultCenter();
  std::vector<std::string> named, all;
  int selfRemoving = 0;
  NotificationCenter::Token self = 0;
  auto a = center.addObserver("one", [&](const Notification& n) { named.push_back(n.name); });
  auto b = center.addObserver("", [&](const Notification& n) { all.push_back(n.name); });
  self = center.addObserver("one", [&](const Notification&) {
    ++selfRemoving;
    center.removeObserver(self);
  });
  center.post("one", nullptr, {});
  center.post("two", nullptr, {{"k", Value(1)}});
  center.removeObserver(a);
  center.post("one", nullptr, {});
  center.removeObserver(b);
  center.post("one", nullptr, {});
  EXPECT_EQ(named, (std::vector<std::string>{"one"}));
  EXPECT_EQ(all, (std::vector<std::string>{"one", "two", "one"}));
  EXPECT_EQ(selfRemoving, 1);
}

TEST(LibraryDirectory, HostChoiceComesFirstThenTheEnvironmentThenXdg) {
  testing::TempLibrary host;
  EXPECT_EQ(LibraryDirectory::path(), host.path());

  LibraryDirectory::resetForTesting();
  fs::path env = host.path() / "from-env";
  ::setenv("SONORELL_LIBRARY_DIR", env.c_str(), 1);
  EXPECT_EQ(LibraryDirectory::path(), env);
  EXPECT_TRUE(fs::is_directory(env));
  EXPECT_EQ(fs::status(env).permissions() & fs::perms::all, fs::perms::owner_all);

  LibraryDirectory::resetForTesting();
  ::unsetenv("SONORELL_LIBRARY_DIR");
  ::setenv("XDG_DATA_HOME", (host.path() / "xdg").c_str(), 1);
  auto xdg = LibraryDirectory::path();
  ASSERT_TRUE(xdg.has_value());
  EXPECT_EQ(xdg->parent_path(), host.path() / "xdg");
  EXPECT_EQ(xdg->filename(), "foundation_test");  // the program name
}

TEST(UserDefaults, ValuesSurviveANewInstanceAndGarbageStartsEmpty) {
  testing::TempLibrary library;
  UserDefaults::standard().setObject(Value("ABC"), "uuid");
  UserDefaults::standard().setObject(Value(42), "count");
  UserDefaults::standard().setObject(Value(true), "flag");
  UserDefaults::resetStandardForTesting();
  EXPECT_EQ(UserDefaults::standard().stringForKey("uuid"), "ABC");
  EXPECT_EQ(UserDefaults::standard().integerForKey("count"), 42);
  EXPECT_TRUE(UserDefaults::standard().boolForKey("flag"));
  EXPECT_EQ(UserDefaults::standard().stringForKey("missing"), std::nullopt);
  UserDefaults::standard().removeObjectForKey("uuid");
  UserDefaults::resetStandardForTesting();
  EXPECT_EQ(UserDefaults::standard().stringForKey("uuid"), std::nullopt);

  fs::path file = library.path() / "SonorellSupport" / "UserDefaults.json";
  std::ofstream(file, std::ios::trunc) << "{ not json";
  UserDefaults::resetStandardForTesting();
  EXPECT_EQ(UserDefaults::standard().integerForKey("count"), 0);
}

}  // namespace
}  // namespace sonorell
