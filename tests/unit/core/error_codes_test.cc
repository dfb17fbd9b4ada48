// Every failure code the engine reports: its description in each layer, the mapping of the
// content-API codes into both layers, and the errors made from API error documents.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "core/error_transformer.h"
#include "sonorell/download_engine.h"
#include "sonorell/errors.h"
#include "sonorell/playback_engine.h"

namespace sonorell {
namespace {

struct Described {
  int64_t code;
  const char* text;
};

// The texts hosts compare against, spelling mistakes included.
const std::vector<Described> kDownloadTexts = {
    {10000, "The download failed for an unknown reason"},
    {10001, "The download failed for an unknown reason, unknown server response received"},
    {11000,
     "The chapter that was requested to be downloaded was not found in the specified audiobook's "
     "metadata, the licenseID was missing, or the request was already used"},
    {11001,
     "A chapter download in progress attempted to look up a chapter that was not found in the "
     "specified audiobook"},
    {11002,
     "A chapter stream in progress attempted to look up a chapter that was not found in the "
     "specified audiobook"},
    {11003,
     "All of the chapters that were requested to be downloaded had a status that is not equal to "
     "DownloadStatusNotDownloaded"},
    {11004, "The audiobookID that was requested was not valid or was not found on the server"},
    {11005, "Could not fetch the requested audiobook's metadata from Sonorell"},
    {11006, "The session key being used for getting metadata before a download is invalid"},
    {11007, "Could not construct a request"},
    {11008, "The download failed due to being unauthorized"},
    {11009, "The download failed, internal server error"},
    {11010, "The request timed out while trying to retrieve the playlist"},
    {12000, "The session key for this download is invalid"},
    {12001, "The licenseID for this download is invalid"},
    {12002, "The checkout ID for this audiobook has expired"},
    {12003, "Setup for the download has failed"},
    {12004, "The download request failed to save to the database"},
    {12005, "The audiobook download status failed to save to the database"},
    {12006, "A chapter download status failed to save to the database"},
    {13000, "The session key for this download is invalid"},
    {13001, "An error occured while getting a playlist to download"},
    {13002, "The playlist cannot be loaded at this time"},
    {15000, "An error occured while trying to download an audio file"},
    {15001, "Moving the downloaded file a second time (after deleting) failed"},
    {15002, "The downloaded file was not the size that it was reported to be "},
    {16000, "The chapter download in progress was cancelled"},
    {17000, "The JSON from the server failed to serialize"},
    {18000, "The system reported that there was no storage space left on the device."},
    {19000, "A network security error occurred."},
};

const std::vector<Described> kPlaybackTexts = {
    {20000, "The requested file was not found. The player is configured to halt in this condition"},
    {20001, "The file is not on disk, and no streaming URL could be generated."},
    {20002, "The audiobookID that was requested was not found in the database for playback"},
    {20003, "The chapter that was requested to be played was not found in the specified audiobook"},
    {20004, "The playlist could not be loaded at this time"},
    {20005, "The playlist could not be retrieved because of a server side error"},
    {20006, "The licenseID is invalid."},
    {20007, "An unknown error occured"},
    {20008, "The playback failed for an unknown reason, unknown server response received"},
    {20009, "The playback failed because metadata was unavailable to be fetched"},
    {21000,
     "The playback request timed out while trying to contact the internal webserver. Recovery was "
     "attempted and failed. Network traffic may be restricted"},
    {21001,
     "The playback request failed because the file is not on disk, and preferences limit streaming "
     "to WiFi."},
    {22000, "Something went wrong, the AVPlayerItem status changed to failed."},
    {22001, "The AVPlayer item stalled and did not recover in time."},
    {22002, "The AVPlayerItem status was switched to unknown after being started."},
    {22003,
     "Something went wrong, The AVPlayerItem that was loaded into the player had a failed status."},
    {22004, "The AVPlayerItem ended before it reached its duration."},
    {22005, "The queue failed to be filled because the next chapter could not be found."},
    {23000,
     "The AVPlayerItem failed to stream due to unauthorized. The session or audio key may have "
     "expired."},
    {24000, "The streaming URLs did not get returned."},
    {24001, "The list of URLS was returned with an error."},
    {25000, "The requested file could not be opened for playback"},
    {25001, "The requested file could not be read for playback"},
    {25002, "The requested data could not be read from the file"},
    {25003, "Could not seek to the required location in the requested file"},
    {26000, "Setting the AVAudioSession to active failed. Playback will not continue without it."},
};

struct Mapped {
  int64_t low;
  int64_t download;
  int64_t playback;
};

const std::vector<Mapped> kMappings = {
    {10, 11009, 20005}, {15, 11010, 20007}, {20, 11000, 20006}, {25, 13002, 20004},
    {30, 10001, 20008}, {35, 12001, 20006}, {40, 11008, 23000}, {45, 11008, 23000},
    {50, 11009, 20005}, {55, 11010, 20007}, {60, 11004, 20002}, {65, 10001, 20008},
    {70, 11005, 20009},
};

TEST(ErrorDescriptions, EveryDownloadCodeHasItsText) {
  for (const auto& [code, text] : kDownloadTexts) {
    EXPECT_EQ(QSODownloadEngine::descriptionForErrorCode(code), text) << code;
  }
}

TEST(ErrorDescriptions, EveryPlaybackCodeHasItsText) {
  for (const auto& [code, text] : kPlaybackTexts) {
    EXPECT_EQ(QSOPlaybackEngine::descriptionForErrorCode(code), text) << code;
  }
}

TEST(ErrorDescriptions, CodesOutsideATableGetThatLayersUnknownText) {
  for (int64_t code : {0, 45, 10002, 11011, 14000, 20000, 19999, -1}) {
    EXPECT_EQ(QSODownloadEngine::descriptionForErrorCode(code),
              QSODownloadFailureUnknownDescription)
        << code;
  }
  for (int64_t code : {0, 45, 10000, 20010, 22006, 27000, -1}) {
    EXPECT_EQ(QSOPlaybackEngine::descriptionForErrorCode(code),
              QSOPlaybackFailureUnknownDescription)
        << code;
  }
  EXPECT_EQ(QSOPlaybackEngine::descriptionForErrorCode(20007),
            QSOPlaybackFailureUnknownDescription);
}

TEST(ErrorDescriptions, SessionKeyTextIsSharedAndIncompleteFileTextEndsInABlank) {
  EXPECT_EQ(QSODownloadEngine::descriptionForErrorCode(12000),
            QSODownloadEngine::descriptionForErrorCode(13000));
  EXPECT_EQ(QSODownloadEngine::descriptionForErrorCode(15002).back(), ' ');
}

TEST(ErrorTransformer, MapsEveryLowCodeIntoBothLayers) {
  auto transformer = QSOErrorTransformer::sharedTransformer();
  for (const auto& [low, download, playback] : kMappings) {
    EXPECT_EQ(transformer->transformErrorToDownloadFailure(low), download) << low;
    EXPECT_EQ(transformer->transformErrorToPlaybackFailure(low), playback) << low;
  }
}

TEST(ErrorTransformer, CodesAlreadyInALayerPassUnchanged) {
  auto transformer = QSOErrorTransformer::sharedTransformer();
  for (int64_t code : {11008, 12345, 20006, 0, 71, -999}) {
    EXPECT_EQ(transformer->transformErrorToDownloadFailure(code), code);
    EXPECT_EQ(transformer->transformErrorToPlaybackFailure(code), code);
  }
}

TEST(ErrorTransformer, PlaylistAndFetchTablesAreSeparate) {
  auto transformer = QSOErrorTransformer::sharedTransformer();
  EXPECT_EQ(transformer->transformPlaylistErrorToDownloadEngineError(45), 45);
  EXPECT_EQ(transformer->transformAPIFetchErrorToDownloadEngineError(40), 40);
  EXPECT_EQ(transformer->transformPlaylistErrorToPlaybackEngineError(20), 20006);
  EXPECT_EQ(transformer->transformAPIFetchErrorToPlaybackEngineError(60), 20002);
}

TEST(APIErrorDocument, UnauthorizedNumbersBecome11008AndOthers10001) {
  EXPECT_EQ(QSOErrorTransformer::codeForAPIErrorNumber(4011), 11008);
  EXPECT_EQ(QSOErrorTransformer::codeForAPIErrorNumber(4012), 11008);
  EXPECT_EQ(QSOErrorTransformer::codeForAPIErrorNumber(4013), 10001);
  EXPECT_EQ(QSOErrorTransformer::descriptionForAPIError(11008, "4012", "expired"),
            "Error: The download failed due to being unauthorized code: 4012 Message: expired");
}

}  // namespace
}  // namespace sonorell
