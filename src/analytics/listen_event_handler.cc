#include "analytics/listen_event_handler.h"

#include <atomic>

#include "analytics/application_state.h"
#include "core/logging.h"
#include "platform/dispatch/clock.h"
#include "platform/services.h"
#include "sonorell/listen_event.h"

namespace sonorell {

namespace {

constexpr std::chrono::seconds kMaximumEventLength{60};
constexpr std::chrono::milliseconds kTerminationWait{2000};

// Set once the shared handler exists, so that termination never creates one just to stop it.
std::atomic<bool> sharedHandlerMade{false};

bool isMissing(const std::optional<std::string>& text) { return !text || text->empty(); }

}  // namespace

std::shared_ptr<QLListenEventHandler> QLListenEventHandler::sharedHandler() {
  static std::shared_ptr<QLListenEventHandler> handler = [] {
    auto made = std::make_shared<QLListenEventHandler>(
        QLListenEventPoster::create(Services::system()->http, 10, 300));
    sharedHandlerMade.store(true, std::memory_order_release);
    return made;
  }();
  return handler;
}

void QLListenEventHandler::applicationWillTerminate() {
  if (!sharedHandlerMade.load(std::memory_order_acquire)) return;
  sharedHandler()->willTerminate();
}

QLListenEventHandler::QLListenEventHandler(std::shared_ptr<QLListenEventPoster> poster)
    : eventPoster_(std::move(poster)) {}

void QLListenEventHandler::validate(const std::optional<std::string>& sessionKey,
                                    const std::optional<std::string>& playlistToken) {
  if (isMissing(sessionKey)) throw QLInvalidListenEventArgument(QLInvalidSessionKeyReason);
  if (isMissing(playlistToken)) throw QLInvalidListenEventArgument(QLInvalidPlaylistTokenReason);
}

void QLListenEventHandler::updateListenEvent(uint64_t chapterNumber, uint64_t partNumber,
                                             const std::optional<std::string>& sessionKey,
                                             const std::optional<std::string>& playlistToken,
                                             uint64_t currentOffset, float currentRate,
                                             uint64_t listeningMethod) {
  validate(sessionKey, playlistToken);
  auto tick = std::make_shared<QLListenEvent>();
  tick->setChapterNumber(chapterNumber);
  tick->setPartNumber(partNumber);
  tick->setSessionKey(sessionKey);
  tick->setPlaylistToken(playlistToken);
  tick->setPlaybackRate(currentRate);
  tick->setListeningMethod(listeningMethod);
  tick->setStartOffset(currentOffset);
  tick->setCurrentSecondOffset(currentOffset);

  std::lock_guard<std::mutex> lock(mutex_);
  if (!currentListenEvent_) {
    currentListenEvent_ = tick;
    return;
  }
  // Unsigned on purpose: a seek backwards wraps to a huge distance and so starts a new event.
  uint64_t length = tick->currentSecondOffset() - currentListenEvent_->startOffset();
  uint64_t step = tick->currentSecondOffset() - currentListenEvent_->currentSecondOffset();
  bool tooLong = length >= static_cast<uint64_t>(kMaximumEventLength.count());
  bool jumped = step != 0 && step != 1;
  bool sameStretch = currentListenEvent_->chapterNumber() == chapterNumber &&
                     currentListenEvent_->partNumber() == partNumber &&
                     currentListenEvent_->playlistToken() == playlistToken;
  if (!tooLong && !jumped && sameStretch) {
    currentListenEvent_->setCurrentSecondOffset(currentOffset);
    return;
  }
  finalizeListenEvent(currentListenEvent_);
  currentListenEvent_ = tick;
}

void QLListenEventHandler::recordListenEvent(uint64_t chapterNumber, uint64_t partNumber,
                                             const std::optional<std::string>& sessionKey,
                                             const std::optional<std::string>& playlistToken,
                                             uint64_t startingOffset, uint64_t finalOffset,
                                             float rate, uint64_t listeningMethod) {
  validate(sessionKey, playlistToken);
  auto event = std::make_shared<QLListenEvent>();
  event->setChapterNumber(chapterNumber);
  event->setPartNumber(partNumber);
  event->setSessionKey(sessionKey);
  event->setPlaylistToken(playlistToken);
  event->setStartOffset(startingOffset);
  event->setCurrentSecondOffset(finalOffset);
  event->setFinalOffset(finalOffset);
  event->setPlaybackRate(rate);
  event->setListeningMethod(listeningMethod);
  stampState(*event);
  event->setTimestamp(Clock::current()->wallNow());
  eventPoster_->submitListenEvent(std::move(event));
}

void QLListenEventHandler::recordListenEvent(const QLListenEventPtr& event) {
  if (!event) return;
  validate(event->sessionKey(), event->playlistToken());
  stampState(*event);
  if (!event->timestamp()) event->setTimestamp(Clock::current()->wallNow());
  eventPoster_->submitListenEvent(event);
}

void QLListenEventHandler::stampState(QLListenEvent& event) const {
  event.setApplicationState(static_cast<uint64_t>(ApplicationStateTracker::current()));
  event.setScreenState(currentScreenState_);
}

void QLListenEventHandler::finalizeListenEvent(const QLListenEventPtr& event) {
  if (!event) return;
  event->setFinalOffset(event->currentSecondOffset());
  event->setTimestamp(Clock::current()->wallNow());
  stampState(*event);
  eventPoster_->submitListenEvent(event);
}

void QLListenEventHandler::flushListenEventQueue() {
  {
    // The open event stays open: later ticks of the same stretch go on extending it.
    std::lock_guard<std::mutex> lock(mutex_);
    finalizeListenEvent(currentListenEvent_);
  }
  eventPoster_->flushListeningEventQueue();
}

void QLListenEventHandler::willTerminate() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    finalizeListenEvent(currentListenEvent_);
  }
  if (!eventPoster_->waitForReadWrite(kTerminationWait)) {
    LogEngineWarning(
        "[ListenEventHandler] The listen event archive was still being written at "
        "termination");
  }
}

QLListenEventPtr QLListenEventHandler::currentListenEvent() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return currentListenEvent_;
}

uint64_t QLListenEventHandler::currentScreenState() const { return currentScreenState_; }

}  // namespace sonorell
