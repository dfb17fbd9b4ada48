#include "platform/media/audio_session.h"

#include <cerrno>

namespace sonorell {

std::shared_ptr<AudioSession> AudioSession::sharedInstance() {
  static std::shared_ptr<AudioSession> shared = std::make_shared<AudioSession>();
  return shared;
}

ErrorPtr AudioSession::setCategory(std::string_view category, std::string_view mode, unsigned) {
  if (category.empty()) return Error::posix(EINVAL, "audio session category");
  std::lock_guard lock(mutex_);
  category_ = category;
  mode_ = mode;
  return nullptr;
}

ErrorPtr AudioSession::setActive(bool active) {
  ActivationHandler handler;
  {
    std::lock_guard lock(mutex_);
    handler = activationHandler_;
  }
  ErrorPtr error = handler ? handler(active) : nullptr;
  std::lock_guard lock(mutex_);
  if (!error) active_ = active;
  return error;
}

bool AudioSession::isActive() const {
  std::lock_guard lock(mutex_);
  return active_;
}

std::string AudioSession::category() const {
  std::lock_guard lock(mutex_);
  return category_;
}

std::string AudioSession::mode() const {
  std::lock_guard lock(mutex_);
  return mode_;
}

void AudioSession::setActivationHandler(ActivationHandler handler) {
  std::lock_guard lock(mutex_);
  activationHandler_ = std::move(handler);
}

AudioSessionRoute AudioSession::currentRoute() const {
  std::lock_guard lock(mutex_);
  return route_;
}

void AudioSession::setCurrentRoute(AudioSessionRoute route,
                                   std::optional<AudioSessionRouteChangeReason> reason) {
  AudioSessionEvent event;
  {
    std::lock_guard lock(mutex_);
    event.previousRoute = std::move(route_);
    route_ = std::move(route);
  }
  if (!reason) return;
  event.kind = AudioSessionEvent::Kind::RouteChange;
  event.routeChangeReason = *reason;
  observers_.notify(event);
}

void AudioSession::raiseInterruption(AudioSessionInterruptionType type,
                                     std::optional<bool> wasSuspended) {
  AudioSessionEvent event;
  event.kind = AudioSessionEvent::Kind::Interruption;
  event.interruptionType = type;
  event.wasSuspended = wasSuspended;
  observers_.notify(event);
}

void AudioSession::raiseServerInterruption(AudioSessionInterruptionType type) {
  {
    std::lock_guard lock(mutex_);
    if (serverInterruption_ == type) return;
    serverInterruption_ = type;
  }
  raiseInterruption(type, false);
}

void AudioSession::raiseRouteChange(AudioSessionRouteChangeReason reason) {
  AudioSessionEvent event;
  event.kind = AudioSessionEvent::Kind::RouteChange;
  event.routeChangeReason = reason;
  event.previousRoute = currentRoute();
  observers_.notify(event);
}

void AudioSession::raiseMediaServicesReset() {
  {
    std::lock_guard lock(mutex_);
    serverInterruption_ = AudioSessionInterruptionType::Ended;
  }
  AudioSessionEvent event;
  event.kind = AudioSessionEvent::Kind::MediaServicesReset;
  observers_.notify(event);
}

ObservationToken AudioSession::observe(DispatchQueuePtr queue, EventCallback callback) {
  return observers_.add(std::move(queue), std::move(callback), "AudioSession::observe");
}

}  // namespace sonorell
