// Identifiers, parameter checks and the main-thread helpers.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <thread>

#include "platform/dispatch/dispatch_queue.h"
#include "sonorell/utils.h"

namespace sonorell {
namespace {

TEST(Utils, UUIDsAreUpperCaseCanonicalAndDistinct) {
  // 8-4-4-4-12 upper-case hex, version 4, variant 10xx.
  const std::regex canonical("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    std::string uuid = QSOUtils::generateUUID();
    EXPECT_TRUE(std::regex_match(uuid, canonical)) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 100u);
}

TEST(Utils, StringParameterMustBePresentAndNotEmpty) {
  EXPECT_FALSE(QSOUtils::validateStringParam(std::optional<std::string>()));
  EXPECT_FALSE(QSOUtils::validateStringParam(std::optional<std::string>("")));
  EXPECT_TRUE(QSOUtils::validateStringParam(std::optional<std::string>(" ")));
  EXPECT_FALSE(QSOUtils::validateStringParam(static_cast<const std::string*>(nullptr)));
}

TEST(MainThread, SyncRunsOnTheMainThreadAndOnItBothFormsRunInline) {
  bool onMain = false;
  std::thread([&] {
    QSORunOnMainThreadSync([&] { onMain = DispatchQueue::isMainThread(); });
  }).join();
  EXPECT_TRUE(onMain);
  EXPECT_FALSE(DispatchQueue::isMainThread());

  bool asyncRanInline = false;
  bool syncRanInline = false;
  DispatchQueue::main()->sync([&] {
    bool ran = false;
    QSORunOnMainThreadAsync([&] { ran = true; });
    asyncRanInline = ran;
    QSORunOnMainThreadSync([&] { syncRanInline = true; });  // would deadlock if it queued
  });
  EXPECT_TRUE(asyncRanInline);
  EXPECT_TRUE(syncRanInline);
}

}  // namespace
}  // namespace sonorell
