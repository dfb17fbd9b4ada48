// The process's audio session: activation (which a host may refuse), the current output route,
// and the interruption, route-change and media-services-reset events that a host, a test or the
// sound-server monitor (pulse/pulse_session_monitor.h) raises. One shared instance; its state is
// guarded by its own mutex and events are delivered on the queues their observers name.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dispatch/observation.h"
#include "sonorell/audio_session.h"
#include "sonorell/error.h"

namespace sonorell {

// Port types and reasons are the host's names (sonorell/audio_session.h).
inline constexpr std::string_view kAudioSessionPortBuiltInSpeaker = QSOAudioPortBuiltInSpeaker;
inline constexpr std::string_view kAudioSessionPortHeadphones = QSOAudioPortHeadphones;
using AudioSessionInterruptionType = QSOAudioInterruption;
using AudioSessionRouteChangeReason = QSOAudioRouteChangeReason;

inline constexpr std::string_view kAudioSessionCategoryPlayback = "AVAudioSessionCategoryPlayback";
inline constexpr std::string_view kAudioSessionModeSpokenAudio = "AVAudioSessionModeSpokenAudio";

struct AudioSessionPort {
  std::string portType;
  std::string portName;
};

struct AudioSessionRoute {
  std::vector<AudioSessionPort> outputs;
};

struct AudioSessionEvent {
  enum class Kind { Interruption, RouteChange, MediaServicesReset };
  Kind kind = Kind::Interruption;
  AudioSessionInterruptionType interruptionType = AudioSessionInterruptionType::Began;
  std::optional<bool> wasSuspended;  // only for interruptions, when known
  AudioSessionRouteChangeReason routeChangeReason = AudioSessionRouteChangeReason::Unknown;
  AudioSessionRoute previousRoute;  // only for route changes
};

class AudioSession {
 public:
  using EventCallback = std::function<void(const AudioSessionEvent& event)>;
  // Decides an activation: null to allow it, an error to refuse it.
  using ActivationHandler = std::function<ErrorPtr(bool active)>;

  static std::shared_ptr<AudioSession> sharedInstance();

  // Records the category and mode; an empty category is refused with a POSIX EINVAL error.
  ErrorPtr setCategory(std::string_view category, std::string_view mode, unsigned options);
  // The handler's answer (allowed without one); the session is active only when allowed.
  ErrorPtr setActive(bool active);
  bool isActive() const;
  std::string category() const;
  std::string mode() const;

  // The host decides whether activation succeeds (audio focus, device availability).
  void setActivationHandler(ActivationHandler handler);

  // The built-in speaker until the host or a route reader sets another route.
  AudioSessionRoute currentRoute() const;
  // Sets the route and, when a reason is given, raises a route change with the old route.
  void setCurrentRoute(AudioSessionRoute route,
                       std::optional<AudioSessionRouteChangeReason> reason = std::nullopt);

  void raiseInterruption(AudioSessionInterruptionType type,
                         std::optional<bool> wasSuspended = std::nullopt);
  // The sound server interrupting our stream for a call. It reaches us two ways (a cork request
  // to the stream, and the stream muted under the call), so only a change is raised, as an
  // interruption that was not a suspension.
  void raiseServerInterruption(AudioSessionInterruptionType type);
  void raiseRouteChange(AudioSessionRouteChangeReason reason);
  // Also ends a server interruption under way: the streams it was about are gone.
  void raiseMediaServicesReset();

  // Every event, on `queue`. A null queue is refused (see observation.h).
  ObservationToken observe(DispatchQueuePtr queue, EventCallback callback);

  AudioSession() = default;  // tests may make their own

 private:
  mutable std::mutex mutex_;
  std::string category_;
  std::string mode_;
  bool active_ = false;
  ActivationHandler activationHandler_;
  AudioSessionRoute route_{{{std::string(kAudioSessionPortBuiltInSpeaker), "Speaker"}}};
  AudioSessionInterruptionType serverInterruption_ = AudioSessionInterruptionType::Ended;
  ObserverList<AudioSessionEvent> observers_;
};

}  // namespace sonorell
