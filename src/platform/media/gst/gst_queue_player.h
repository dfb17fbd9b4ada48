// The GStreamer backend: one playbin per player. Each item's bytes come through its resource loader
// (appsrc, seekable) or, when the loader redirects, through an HTTP source sending the redirect's
// headers and trusting the system's CAs plus the host's bundle; decodebin parses and decodes MP3
// (half a second of audio to a buffer after a stream's first second, so that playsink's threads are
// not woken per frame), scaletempo keeps the pitch at other rates, and the next queued item is
// handed to playbin before the current one drains, so the advance is gapless. The sink comes from
// $SONORELL_AUDIO_SINK (default autoaudiosink). On a PulseAudio sink the stream carries the
// engine's name, icon and role; the server's requests to cork or uncork it are the audio session's
// interruptions, and a sink that loses its server after playing stalls the player rather than
// failing the item (the session's reset starts playback again). State is guarded by mutex_; every
// pipeline call runs on queue_, never under mutex_, because GStreamer calls back into the player
// from its streaming threads.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/dispatch/dispatch_group.h"
#include "platform/media/audio_session.h"
#include "platform/media/gst/gst_item_source.h"
#include "platform/media/queue_player_base.h"

namespace sonorell {

class GstQueuePlayer : public QueuePlayerBase {
 public:
  // Decoded audio as it reaches the sink, mixed to mono: the samples, their rate and the
  // running time (ns) they span. Called on a streaming thread.
  using AudioTap = std::function<void(const float* samples, size_t count, int sampleRate,
                                      int64_t runningStartNs, int64_t runningEndNs)>;

  // `session` hears the sound server's cork and uncork requests for our stream.
  static std::shared_ptr<GstQueuePlayer> create(std::weak_ptr<AudioSession> session = {});
  ~GstQueuePlayer() override;

  float rate() const override;
  void setRate(float rate) override;
  void seekToTime(MediaTime time, SeekCompletion completion) override;
  void seekToTime(MediaTime time, MediaTime toleranceBefore, MediaTime toleranceAfter,
                  SeekCompletion completion) override;
  MediaTime currentTime() const override;

  void setAudioTapForTesting(AudioTap tap);

 protected:
  void queueDidChange() override;

 private:
  struct Pipeline;  // the GStreamer objects; defined with the implementation
  struct Seek {
    double seconds;
    bool accurate;
    SeekCompletion completion;
    DispatchQueuePtr replyQueue;  // where the completion runs: the caller's queue
  };

  GstQueuePlayer();
  bool build();
  std::shared_ptr<GstQueuePlayer> self();
  void async(std::function<void(GstQueuePlayer&)> work);
  static void complete(Seek seek, bool finished);

  // On queue_.
  void sync();
  void load(const ItemPtr& item, const GstItemSource::Probe& probe);
  void stopPipeline(bool keepPendingSeek = false);
  void applyRate();
  void startSeek(Seek seek);
  void handleMessage(void* message);
  void onAsyncDone();
  void onEos();
  void onStreamStart();
  void onError(ErrorPtr error);
  // A PulseAudio sink lost its server mid-play; true when the error was taken as that.
  bool onOutputLost(void* source);
  void onStateRequest(void* message);
  void onSourceFailure(const ItemPtr& item, ErrorPtr error, bool endedEarly);
  void checkStall();
  void refreshDuration(const ItemPtr& item);
  void finishItem(const ItemPtr& item, bool advance);

  // Streaming threads.
  void aboutToFinish();
  void sourceSetup(void* element);
  static void nameStream(void* element);
  void onSinkBuffer(void* pad, void* buffer);

  std::shared_ptr<GstItemSource> sourceFor(const ItemPtr& item);

  const DispatchQueuePtr queue_;
  std::unique_ptr<Pipeline> gst_;
  std::shared_ptr<DispatchTimer> stallTimer_;
  std::weak_ptr<AudioSession> session_;  // set once by create()

  mutable std::mutex mutex_;
  std::map<ItemPtr, std::shared_ptr<GstItemSource>> sources_;
  ItemPtr loaded_;       // the item of the pipeline's current stream
  ItemPtr pendingNext_;  // handed to playbin for the gapless advance, not yet playing
  ItemPtr sourceItem_;   // the item the next source-setup belongs to
  float rate_ = 0.0f;
  float appliedRate_ = 1.0f;
  bool prerolled_ = false;
  bool ended_ = false;
  bool stalled_ = false;
  bool failed_ = false;
  bool outputLost_ = false;  // the sink's server went away; later errors of it say nothing new
  std::optional<Seek> pendingSeek_;   // waits for the item to be ready
  std::optional<Seek> seekInFlight_;  // sent, completes at the next async-done
  // Where the last finished seek landed: the position until the pipeline answers a query.
  mutable std::optional<double> settledSeconds_;
  AudioTap tap_;
};

}  // namespace sonorell
