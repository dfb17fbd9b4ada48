// The host's audio-session events, raised on the process's audio session (the one the shared
// engine runs on).
#include "platform/media/audio_session.h"
#include "sonorell/audio_session.h"

namespace sonorell {

void QSOAudioSessionEvents::setOutputRoute(std::string portType, std::string portName,
                                           std::optional<QSOAudioRouteChangeReason> reason) {
  AudioSession::sharedInstance()->setCurrentRoute(
      AudioSessionRoute{{AudioSessionPort{std::move(portType), std::move(portName)}}}, reason);
}

void QSOAudioSessionEvents::interruption(QSOAudioInterruption type,
                                         std::optional<bool> wasSuspended) {
  AudioSession::sharedInstance()->raiseInterruption(type, wasSuspended);
}

void QSOAudioSessionEvents::mediaServicesReset() {
  AudioSession::sharedInstance()->raiseMediaServicesReset();
}

}  // namespace sonorell
