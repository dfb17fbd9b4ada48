// Posting through the engine's poster (order, synchronous mode, sender) and the failure
// dictionaries hosts receive.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "core/notification_poster.h"
#include "sonorell/errors.h"
#include "sonorell/notifications.h"
#include "support/notification_recorder.h"

namespace sonorell {
namespace {

using testing::NotificationRecorder;

TEST(NotificationPosting, PostsFromTwoThreadsArriveInPostingOrder) {
  NotificationRecorder recorder;
  auto poster = QSONotificationPoster::sharedPoster();
  constexpr int kRounds = 200;
  std::mutex mutex;
  std::condition_variable cv;
  int turn = 0;  // even: thread A posts, odd: thread B posts
  auto worker = [&](int parity) {
    for (int i = parity; i < 2 * kRounds; i += 2) {
      std::unique_lock lock(mutex);
      cv.wait(lock, [&] { return turn == i; });
      poster->postNotificationWithName("n" + std::to_string(i));
      ++turn;
      cv.notify_all();
    }
  };
  std::thread a(worker, 0), b(worker, 1);
  a.join();
  b.join();
  ASSERT_TRUE(recorder.waitFor(2 * kRounds));
  auto received = recorder.received();
  for (int i = 0; i < 2 * kRounds; ++i) EXPECT_EQ(received[i].name, "n" + std::to_string(i));
}

TEST(NotificationPosting, AfterDisableDispatchThePosterDeliversBeforePostReturnsAsTheSender) {
  auto poster = QSONotificationPoster::sharedPoster();
  poster->disableDispatch();
  std::thread::id deliveredOn;
  const void* sender = nullptr;
  auto token = NotificationCenter::defaultCenter().addObserver("sync", [&](const Notification& n) {
    deliveredOn = std::this_thread::get_id();
    sender = n.object.get();
  });
  poster->postNotificationWithName("sync", Dictionary{{"k", Value(1)}});
  EXPECT_EQ(deliveredOn, std::this_thread::get_id());
  EXPECT_EQ(sender, poster.get());
  NotificationCenter::defaultCenter().removeObserver(token);
}

ErrorPtr sonorellErrorIn(const Dictionary& dict) {
  auto it = dict.find(QSOSonorellErrorUserInfoKey);
  return it == dict.end() ? nullptr : it->second.asError();
}

TEST(FailureDictionaries, NameTheirSubjectWithAnErrorOnlyForADescriptionAndItsUnderlyingError) {
  auto underlying = Error::make(std::string(kURLLoadingErrorDomain), -1001, "timed out", nullptr);
  QSOChapterDescription chapter("123", 0, 4);
  auto dict = QSONotificationPoster::prepareDictionaryWithChapterDescription(
      chapter, std::string("broken"), 15000, underlying);
  EXPECT_EQ(dict.at("ChapterDescription"), Value(chapter));
  auto error = sonorellErrorIn(dict);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, QSOErrorDomain);
  EXPECT_EQ(error->code, 15000);
  EXPECT_EQ(error->userInfo.size(), 2u);
  EXPECT_EQ(error->localizedDescription(), "broken");
  EXPECT_EQ(error->underlyingError(), underlying);
  EXPECT_EQ(QSONotificationPoster::getUnderlyingError(error), underlying);

  auto alone = sonorellErrorIn(QSONotificationPoster::prepareDictionaryWithChapterDescription(
      chapter, std::string("broken"), 15000, nullptr));
  EXPECT_EQ(alone->userInfo.size(), 1u);

  QSODownloadRequest request("RID", "555", 0, "key", "license", false);
  EXPECT_EQ(QSONotificationPoster::prepareDictionaryWithDownloadRequest(&request, std::nullopt, 0,
                                                                        nullptr),
            (Dictionary{{"DownloadRequestID", Value("RID")}, {"audiobookID", Value("555")}}));
  auto withChapter = QSONotificationPoster::prepareDictionaryWithChapterDescription(
      QSOChapterDescription("555", 1, 2), &request, std::nullopt, 0, nullptr);
  EXPECT_EQ(withChapter.count("DownloadRequestID"), 1u);
  EXPECT_EQ(withChapter.count("audiobookID"), 0u);

  // Without a description no error is added, whatever the code.
  EXPECT_EQ(QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier("123", std::nullopt,
                                                                            11008, nullptr),
            (Dictionary{{"audiobookID", Value("123")}}));
  EXPECT_TRUE(QSONotificationPoster::prepareDictionaryWithChapterDescription(
                  std::nullopt, std::nullopt, 5, nullptr)
                  .empty());
}

TEST(FailureDictionaries, TransformsUnwrapOurOwnErrorAndDescribeTheMappedCode) {
  auto transport = Error::make(std::string(kURLLoadingErrorDomain), -1009, "offline", nullptr);
  auto playlistError =
      Error::make(std::string(QSOErrorDomain), 40,
                  Dictionary{{std::string(kUnderlyingErrorKey), Value(transport)}});
  QSODownloadRequest request("RID", "555", 0, "key", "license", false);

  auto dict = QSONotificationPoster::transformDownloadDictErrorWithChapterDescription(
      std::nullopt, &request, std::string("ignored"), 99, playlistError);
  auto error = sonorellErrorIn(dict);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, 11008);
  EXPECT_EQ(error->localizedDescription(), "The download failed due to being unauthorized");
  EXPECT_EQ(error->underlyingError(), transport);
  EXPECT_EQ(dict.count("audiobookID"), 1u) << "no chapter: built by request";

  auto chapterDict = QSONotificationPoster::transformDownloadDictErrorWithChapterDescription(
      QSOChapterDescription("555", 0, 1), &request, std::nullopt, 60, nullptr);
  EXPECT_EQ(sonorellErrorIn(chapterDict)->code, 11004);
  EXPECT_EQ(chapterDict.count("ChapterDescription"), 1u);
  EXPECT_EQ(chapterDict.count("audiobookID"), 0u);

  // A foreign underlying error keeps the given code, mapped for playback.
  auto timeout = Error::make(std::string(kURLLoadingErrorDomain), -1001, "slow", nullptr);
  error = sonorellErrorIn(QSONotificationPoster::transformPlaybackDictErrorWithChapterDescription(
      QSOChapterDescription("1", 0, 0), std::nullopt, 20, timeout));
  EXPECT_EQ(error->code, 20006);
  EXPECT_EQ(error->localizedDescription(), "The licenseID is invalid.");
  EXPECT_EQ(error->underlyingError(), timeout);
}

}  // namespace
}  // namespace sonorell
