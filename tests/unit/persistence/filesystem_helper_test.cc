#include "persistence/filesystem_helper.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/foundation/library_directory.h"
#include "sonorell/notifications.h"
#include "support/notification_recorder.h"
#include "support/temp_library.h"

namespace sonorell {
namespace {

namespace fs = std::filesystem;
using testing::NotificationRecorder;
using testing::TempLibrary;

mode_t permissionsOf(const fs::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 07777;
}

void writeFile(const fs::path& path, size_t size) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << std::string(size, 'x');
}

class FilesystemHelperTest : public ::testing::Test {
 protected:
  TempLibrary library;
  fs::path support() const { return library.path() / "SonorellSupport"; }
};

// --- Layout ---

TEST_F(FilesystemHelperTest, EveryPathLivesUnderTheLibraryDirectoryAndAskingCreatesNothing) {
  EXPECT_EQ(FilesystemHelper::supportDirectory(), support());
  EXPECT_EQ(FilesystemHelper::audioParentDirectory(), support() / "Audio");
  EXPECT_EQ(FilesystemHelper::audiobookDirectory("12345"), support() / "Audio" / "12345");
  EXPECT_EQ(FilesystemHelper::metadataDatabasePath(), support() / "SDKMetadata.sqlite");
  EXPECT_EQ(FilesystemHelper::persistenceEngineDatabasePath(),
            support() / "PersistenceEngine.sqlite");
  EXPECT_EQ(FilesystemHelper::listenEventsArchivePath(),
            support() / "ListenEvents" / "listening_events.archive");
  EXPECT_EQ(FilesystemHelper::filePath(QSOChapterDescription("12345", 0, 7)),
            support() / "Audio" / "12345" / "12345_0_7_audio.mp3");
  EXPECT_FALSE(fs::exists(support()));
  for (const char* id : {"", ".", "..", "../12345", "a/b", "/etc"}) {
    EXPECT_TRUE(FilesystemHelper::audiobookDirectory(id).empty()) << id;
    EXPECT_TRUE(FilesystemHelper::filePath(QSOChapterDescription(id, 0, 1)).empty()) << id;
  }
}

// --- Chapter file names ---

TEST(ChapterFileName, ParsesIdPartAndChapterSkippingEmptyPiecesAndRoundTrips) {
  EXPECT_EQ(FilesystemHelper::chapterDescription("12345_2_15_x.mp3"),
            QSOChapterDescription("12345", 2, 15));
  EXPECT_EQ(FilesystemHelper::chapterDescription("12345__2_15_x.mp3"),
            QSOChapterDescription("12345", 2, 15));
  EXPECT_EQ(FilesystemHelper::chapterDescription("_12345_2__15_"),
            QSOChapterDescription("12345", 2, 15));
  for (const auto& chapter :
       {QSOChapterDescription("12345", 0, 0), QSOChapterDescription("9", 3, 27),
        QSOChapterDescription("777", 5000000000ull, UINT64_MAX)}) {
    EXPECT_EQ(FilesystemHelper::chapterDescription(FilesystemHelper::filename(chapter)), chapter)
        << chapter.description();
  }
}

TEST(ChapterFileName, RejectsNamesWithoutTwoWholeNumbers) {
  for (const char* name : {"12345_2", "12345", "", "_", "12345_a_15_x.mp3", "12345_2_b_x.mp3",
                           "12345_2_15.mp3", "12345_-2_15_x.mp3", "12345_2x_15_x.mp3",
                           "12345_99999999999999999999_1_x.mp3", "notes.txt"}) {
    EXPECT_FALSE(FilesystemHelper::chapterDescription(name).has_value()) << name;
  }
}

// --- Directory creation ---

TEST_F(FilesystemHelperTest, DirectoriesArePrivateExcludedFromBackupAndAudioIsTaggedAsCache) {
  ErrorPtr error;
  auto made = FilesystemHelper::createAudiobookDirectory("12345", &error);
  ASSERT_TRUE(made.has_value());
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(*made, support() / "Audio" / "12345");
  for (const auto& dir : {*made, support() / "Audio", support()}) {
    EXPECT_EQ(permissionsOf(dir), 0700u) << dir;
  }
  const fs::path tag = support() / "Audio" / "CACHEDIR.TAG";
  auto expectTag = [&tag] {
    std::ifstream in(tag);
    std::string firstLine;
    ASSERT_TRUE(std::getline(in, firstLine));
    EXPECT_EQ(firstLine, "Signature: 8a477f597d28d172789f06886806bc55");
  };
  expectTag();
  fs::remove(tag);
  EXPECT_EQ(FilesystemHelper::createAudioDirectory(), support() / "Audio");
  expectTag();

  // Creating an existing directory again is not a failure.
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(FilesystemHelper::createSupportDirectory(), support());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  char value[16] = {};
  ssize_t length = ::getxattr(support().c_str(), "user.xdg.robots.backup", value, sizeof value);
  if (length >= 0 || errno != ENOTSUP) {  // some file systems have no user xattrs
    ASSERT_GE(length, 0) << std::strerror(errno);
    EXPECT_EQ(std::string(value, static_cast<size_t>(length)), "false");
  }
}

TEST_F(FilesystemHelperTest, AudiobookDirectoryFailuresArePosixErrorsAndPrinted) {
  auto expectFailure = [](const std::string& id, int code) {
    ErrorPtr error;
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(FilesystemHelper::createAudiobookDirectory(id, &error).has_value());
    // Without an out-parameter the failure is still reported as nothing.
    EXPECT_FALSE(FilesystemHelper::createAudiobookDirectory(id, nullptr).has_value());
    std::string console = ::testing::internal::GetCapturedStderr();
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, kPOSIXErrorDomain);
    EXPECT_EQ(error->code, code);
    EXPECT_EQ(console.rfind("Exception creating audiobook directory: ", 0), 0u) << console;
  };
  expectFailure("../escape", EINVAL);
  EXPECT_FALSE(fs::exists(support() / "escape"));
  writeFile(support() / "Audio", 3);  // a file where the audio directory belongs
  expectFailure("12345", ENOTDIR);
}

TEST_F(FilesystemHelperTest, SupportAndAudioFailuresArePrintedAndThePathStillReturned) {
  writeFile(support(), 3);  // a file where the support directory belongs

  ::testing::internal::CaptureStderr();
  EXPECT_EQ(FilesystemHelper::createSupportDirectory(), support());
  std::string supportConsole = ::testing::internal::GetCapturedStderr();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(FilesystemHelper::createAudioDirectory(), support() / "Audio");
  std::string audioConsole = ::testing::internal::GetCapturedStderr();

  EXPECT_EQ(supportConsole.rfind("Exception creating support directory: ", 0), 0u)
      << supportConsole;
  EXPECT_EQ(audioConsole.rfind("Exception creating support directory: ", 0), 0u) << audioConsole;
}

TEST(FilesystemHelperWithoutLibrary, GivesEmptyPathsAndCreatesNothing) {
  TempLibrary scratch;
  fs::path blocker = scratch.path() / "not-a-directory";
  writeFile(blocker, 1);
  LibraryDirectory::resetForTesting();
  LibraryDirectory::setPath(blocker / "Library");  // cannot be created
  ASSERT_FALSE(LibraryDirectory::path().has_value());

  EXPECT_TRUE(FilesystemHelper::supportDirectory().empty());
  EXPECT_TRUE(FilesystemHelper::audioParentDirectory().empty());
  EXPECT_TRUE(FilesystemHelper::metadataDatabasePath().empty());
  EXPECT_TRUE(FilesystemHelper::listenEventsArchivePath().empty());
  EXPECT_TRUE(FilesystemHelper::filePath(QSOChapterDescription("1", 0, 1)).empty());

  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(FilesystemHelper::createSupportDirectory().empty());
  ErrorPtr error;
  EXPECT_FALSE(FilesystemHelper::createAudiobookDirectory("1", &error).has_value());
  std::string console = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(error, nullptr);
  EXPECT_NE(console.find("Exception creating support directory: "), std::string::npos);
  EXPECT_FALSE(fs::exists("SonorellSupport")) << "nothing relative to the working directory";
  EXPECT_FALSE(fs::exists("Audio"));
}

// --- Files ---

TEST_F(FilesystemHelperTest, AChapterFileIsSeenWithItsSizeAndDeletingItNotifiesWhenAsked) {
  QSOChapterDescription chapter("12345", 0, 2), sibling("12345", 0, 3), missing("12345", 0, 9);
  EXPECT_FALSE(FilesystemHelper::fileExists(chapter));
  EXPECT_EQ(FilesystemHelper::sizeOnDisk(chapter), 0u);
  writeFile(FilesystemHelper::filePath(chapter), 1234);
  writeFile(FilesystemHelper::filePath(sibling), 10);
  EXPECT_TRUE(FilesystemHelper::fileExists(chapter));
  EXPECT_EQ(FilesystemHelper::sizeOnDisk(chapter), 1234u);

  NotificationRecorder recorder;
  FilesystemHelper::deleteFile(chapter, true);
  FilesystemHelper::deleteFile(missing, true);  // a missing file still notifies
  EXPECT_FALSE(FilesystemHelper::fileExists(chapter));
  EXPECT_TRUE(FilesystemHelper::fileExists(sibling));
  FilesystemHelper::deleteFile(sibling, false);
  FilesystemHelper::deleteFile(QSOChapterDescription("12345", 0, 8), false);
  EXPECT_FALSE(FilesystemHelper::fileExists(sibling));
  auto received = recorder.received();
  ASSERT_EQ(received.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(received[i].name, QSOChapterDeleteSuccessNotification);
    EXPECT_EQ(received[i].userInfo, (Dictionary{{std::string(QSOChapterDescriptionUserInfoKey),
                                                 Value(i == 0 ? chapter : missing)}}));
  }
}

TEST_F(FilesystemHelperTest, DeletingAllFilesRemovesOnlyThatAudiobooksTreeAndNotifies) {
  writeFile(FilesystemHelper::filePath(QSOChapterDescription("12345", 0, 1)), 10);
  writeFile(FilesystemHelper::audiobookDirectory("12345") / "nested" / "partial.tmp", 10);
  writeFile(FilesystemHelper::filePath(QSOChapterDescription("777", 0, 1)), 10);
  fs::path metadata = FilesystemHelper::metadataDatabasePath();
  writeFile(metadata, 10);

  NotificationRecorder recorder;
  FilesystemHelper::deleteAllFiles("12345");
  FilesystemHelper::deleteAllFiles("424242");  // absent: still notifies
  for (const char* id : {"", ".", "..", "../.."}) FilesystemHelper::deleteAllFiles(id);

  EXPECT_FALSE(fs::exists(FilesystemHelper::audiobookDirectory("12345")));
  EXPECT_TRUE(FilesystemHelper::fileExists(QSOChapterDescription("777", 0, 1)));
  EXPECT_TRUE(fs::exists(metadata));
  auto received = recorder.received();
  ASSERT_EQ(received.size(), 6u);
  EXPECT_EQ(received[0].name, QSOAudiobookDeleteSuccessNotification);
  EXPECT_EQ(received[0].userInfo,
            (Dictionary{{std::string(QSOAudiobookIDUserInfoKey), Value("12345")}}));
  EXPECT_EQ(received[1].userInfo,
            (Dictionary{{std::string(QSOAudiobookIDUserInfoKey), Value("424242")}}));
}

}  // namespace
}  // namespace sonorell
