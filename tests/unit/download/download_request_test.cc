// Download requests as the engine will take them: their description, which chapters they
// cover, and validation with its log lines.
#include <gtest/gtest.h>

#include "download/download_request_utilities.h"
#include "persistence/chapter_status.h"
#include "sonorell/log_engine.h"
#include "support/recording_listener.h"
#include "support/temp_library.h"

namespace sonorell {
namespace {

using testing::RecordingListener;

class DownloadRequests : public ::testing::Test {
 protected:
  void SetUp() override {
    QSOLogEngine::setListener(listener);
    std::vector<QSOChapterStatusPtr> rows;
    for (uint64_t c : {4, 2, 5, 1, 3}) {  // stored out of order
      rows.push_back(
          std::make_shared<QSOChapterStatus>(QSOChapterDescription("book", 0, c), 0, 0, 10, "t"));
    }
    ASSERT_TRUE(QSOChapterStatus::saveToDatabase(rows));
  }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }

  std::vector<uint64_t> chapters(const QSODownloadRequest& request) {
    std::vector<uint64_t> out;
    for (const auto& s : QSODownloadRequestUtilities::getChaptersInRequest(request)) {
      out.push_back(s->chapterDescription().chapterNumber());
    }
    return out;
  }

  testing::TempLibrary library;
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

TEST_F(DownloadRequests, CoverageFromTheThirdOfFiveChapters) {
  using V = std::vector<uint64_t>;
  EXPECT_EQ(chapters({"book", 0, 3, DownloadTypeFullAudiobook, "k", "l", false}),
            (V{3, 4, 5, 1, 2}));
  EXPECT_EQ(chapters({"book", 0, 3, DownloadTypeToEnd, "k", "l", false}), (V{3, 4, 5}));
  EXPECT_EQ(chapters({"book", 0, 3, DownloadTypeSingleChapter, "k", "l", false}), (V{3}));
  EXPECT_EQ(chapters({"book", 0, 5, DownloadTypeToEnd, "k", "l", false}), (V{5}));
  for (uint64_t type : {0, 1, 2}) {
    EXPECT_TRUE(chapters({"book", 0, 9, type, "k", "l", false}).empty()) << type;
    EXPECT_TRUE(chapters({"book", 1, 3, type, "k", "l", false}).empty()) << type;
    EXPECT_TRUE(chapters({"other", 0, 3, type, "k", "l", false}).empty()) << type;
  }
}

TEST_F(DownloadRequests, TheDefaultStartIsTheFirstChapterButHalfADefaultMatchesNothing) {
  QSODownloadRequest whole("book", DownloadTypeFullAudiobook, "k", "l", false);
  EXPECT_EQ(chapters(whole), (std::vector<uint64_t>{1, 2, 3, 4, 5}));
  EXPECT_NE(whole.description().find("partNumber: 18446744073709551615 chapterNumber: "
                                     "18446744073709551615"),
            std::string::npos);
  EXPECT_TRUE(
      chapters({"book", QSODownloadRequestDefaultPart, 3, DownloadTypeToEnd, "k", "l", false})
          .empty());
  EXPECT_EQ(QSODownloadRequest("RID", "book", 0, 3, 1, "key", "lic", true).description(),
            "(QSODownloadRequest) audiobookID: book partNumber: 0 chapterNumber: 3 downloadType: "
            "1 sessionKey: key licenseID: lic restrictToWiFi: YES requestID: RID");
}

TEST_F(DownloadRequests, EachInvalidFieldAndARequestStartedTwiceFailWithTheirLines) {
  QSODownloadRequestValidator validator;
  EXPECT_FALSE(validator.validateRequest({"", 0, "k", "l", false}));
  EXPECT_FALSE(validator.validateRequest({"book", 0, "", "l", false}));
  EXPECT_FALSE(validator.validateRequest({"book", 0, "k", "", false}));
  EXPECT_FALSE(validator.validateRequest({"book", 3, "k", "l", false}));
  EXPECT_EQ(listener->count("[DownloadEngine] Request validation failed. AudiobookId: "), 1u);
  EXPECT_EQ(listener->count("[DownloadEngine] Request validation failed. SessionKey: "), 1u);
  EXPECT_EQ(listener->count("[DownloadEngine] Request validation failed. LicenseId: "), 1u);
  EXPECT_EQ(listener->count("[DownloadEngine] Request validation failed. Download Type: 3"), 1u);
  EXPECT_TRUE(validator.currentRequests().empty());

  EXPECT_TRUE(validator.validateRequest({"RID-1", "book", 0, 1, 0, " ", " ", false}))
      << "blanks are valid";
  EXPECT_FALSE(validator.validateRequest({"RID-1", "book", 0, 1, 0, "k", "l", false}));
  EXPECT_EQ(listener->count("[DownloadEngine] Request validation failed. Reuse of RID-1"), 1u);
  EXPECT_EQ(validator.currentRequests().size(), 1u);
}

}  // namespace
}  // namespace sonorell
