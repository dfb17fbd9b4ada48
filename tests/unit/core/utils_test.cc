// Identifiers, parameter checks and the main-thread helpers.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "platform/dispatch/dispatch_queue.h"
#include "sonorell/utils.h"

namespace sonorell {
namespace {

TEST(Utils, UUIDsAreUpperCaseCanonicalAndDistinct) {
  // 8-4-4-4-12 upper-case hex, version 4, variant 10xx.
  auto canonical = [](const std::string& u) {
    if (u.size() != 36 || u[14] != '4' || std::string("89AB").find(u[19]) == std::string::npos) {
      return false;
    }
    for (size_t i = 0; i < u.size(); ++i) {
      bool dash = i == 8 || i == 13 || i == 18 || i == 23;
      if (dash ? u[i] != '-' : std::string("0123456789ABCDEF").find(u[i]) == std::string::npos) {
        return false;
      }
    }
    return true;
  };
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    std::string uuid = QSOUtils::generateUUID();
    EXPECT_TRUE(canonical(uuid)) << uuid;
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

TEST(MainThread, SyncFromAnotherThreadRunsOnTheMainThread) {
  bool onMain = false;
  std::thread([&] {
    QSORunOnMainThreadSync([&] { onMain = DispatchQueue::isMainThread(); });
  }).join();
  EXPECT_TRUE(onMain);
  EXPECT_FALSE(DispatchQueue::isMainThread());
}

TEST(MainThread, OnTheMainThreadBothFormsRunInline) {
  bool asyncRanInline = false;
  bool syncRanInline = false;
  DispatchQueue::main()->sync([&] {
    bool ran = false;
    QSORunOnMainThreadAsync([&] { ran = true; });
    asyncRanInline = ran;
    ran = false;
    QSORunOnMainThreadSync([&] { ran = true; });  // would deadlock if it queued
    syncRanInline = ran;
  });
  EXPECT_TRUE(asyncRanInline);
  EXPECT_TRUE(syncRanInline);
}

}  // namespace
}  // namespace sonorell
