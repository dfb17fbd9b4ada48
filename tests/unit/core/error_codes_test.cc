// Failure codes at the edges of the tables: unknown codes, codes already in a layer, the
// separate playlist and fetch tables, and errors made from API error documents. (How each fetch
// failure reaches a host is tested with the fetches themselves.)
#include <gtest/gtest.h>

#include "core/error_transformer.h"
#include "sonorell/download_engine.h"
#include "sonorell/errors.h"
#include "sonorell/playback_engine.h"

namespace sonorell {
namespace {

TEST(ErrorDescriptions, CodesOutsideATableGetThatLayersUnknownText) {
  for (int64_t code : {0, 45, 10002, 11011, 14000, 20000, 19999, -1}) {
    EXPECT_EQ(QSODownloadEngine::descriptionForErrorCode(code),
              QSODownloadFailureUnknownDescription)
        << code;
  }
  for (int64_t code : {0, 45, 10000, 20007, 20010, 22006, 27000, -1}) {
    EXPECT_EQ(QSOPlaybackEngine::descriptionForErrorCode(code),
              QSOPlaybackFailureUnknownDescription)
        << code;
  }
  // The session key text is shared; the incomplete file text ends in a blank.
  EXPECT_EQ(QSODownloadEngine::descriptionForErrorCode(12000),
            QSODownloadEngine::descriptionForErrorCode(13000));
  EXPECT_EQ(QSODownloadEngine::descriptionForErrorCode(15002).back(), ' ');
}

TEST(ErrorTransformer, LayerCodesPassPlaylistAndFetchTablesDifferAndAPIDocumentsMap) {
  auto transformer = QSOErrorTransformer::sharedTransformer();
  for (int64_t code : {11008, 12345, 20006, 0, 71, -999}) {
    EXPECT_EQ(transformer->transformErrorToDownloadFailure(code), code);
    EXPECT_EQ(transformer->transformErrorToPlaybackFailure(code), code);
  }
  EXPECT_EQ(transformer->transformPlaylistErrorToDownloadEngineError(45), 45);
  EXPECT_EQ(transformer->transformAPIFetchErrorToDownloadEngineError(40), 40);
  EXPECT_EQ(transformer->transformPlaylistErrorToPlaybackEngineError(20), 20006);
  EXPECT_EQ(transformer->transformAPIFetchErrorToPlaybackEngineError(60), 20002);
  // API error documents: unauthorized numbers become 11008, others 10001.
  EXPECT_EQ(QSOErrorTransformer::codeForAPIErrorNumber(4011), 11008);
  EXPECT_EQ(QSOErrorTransformer::codeForAPIErrorNumber(4012), 11008);
  EXPECT_EQ(QSOErrorTransformer::codeForAPIErrorNumber(4013), 10001);
  EXPECT_EQ(QSOErrorTransformer::descriptionForAPIError(11008, "4012", "expired"),
            "Error: The download failed due to being unauthorized code: 4012 Message: expired");
}

}  // namespace
}  // namespace sonorell
