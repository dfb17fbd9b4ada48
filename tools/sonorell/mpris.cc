// MPRIS on GDBus: the two interfaces of /org/mpris/MediaPlayer2, answered from the playback
// engine's getters, and PropertiesChanged whenever an engine notification may have changed what
// they answer.
#include "mpris.h"

#include <gio/gio.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <thread>

namespace sonorell::cli {
namespace {

constexpr const char* kObjectPath = "/org/mpris/MediaPlayer2";
constexpr const char* kRootInterface = "org.mpris.MediaPlayer2";
constexpr const char* kPlayerInterface = "org.mpris.MediaPlayer2.Player";
constexpr double kMinRate = 0.5;
constexpr double kMaxRate = 3.0;
constexpr gint64 kMicroseconds = 1'000'000;

constexpr const char* kIntrospection = R"(<node>
  <interface name="org.mpris.MediaPlayer2">
    <method name="Raise"/>
    <method name="Quit"/>
    <property name="CanQuit" type="b" access="read"/>
    <property name="CanRaise" type="b" access="read"/>
    <property name="HasTrackList" type="b" access="read"/>
    <property name="Identity" type="s" access="read"/>
    <property name="SupportedUriSchemes" type="as" access="read"/>
    <property name="SupportedMimeTypes" type="as" access="read"/>
  </interface>
  <interface name="org.mpris.MediaPlayer2.Player">
    <method name="Next"/>
    <method name="Previous"/>
    <method name="Pause"/>
    <method name="PlayPause"/>
    <method name="Stop"/>
    <method name="Play"/>
    <method name="Seek"><arg direction="in" name="Offset" type="x"/></method>
    <method name="SetPosition">
      <arg direction="in" name="TrackId" type="o"/>
      <arg direction="in" name="Position" type="x"/>
    </method>
    <method name="OpenUri"><arg direction="in" name="Uri" type="s"/></method>
    <signal name="Seeked"><arg name="Position" type="x"/></signal>
    <property name="PlaybackStatus" type="s" access="read"/>
    <property name="Rate" type="d" access="readwrite"/>
    <property name="Metadata" type="a{sv}" access="read"/>
    <property name="Volume" type="d" access="readwrite"/>
    <property name="Position" type="x" access="read"/>
    <property name="MinimumRate" type="d" access="read"/>
    <property name="MaximumRate" type="d" access="read"/>
    <property name="CanGoNext" type="b" access="read"/>
    <property name="CanGoPrevious" type="b" access="read"/>
    <property name="CanPlay" type="b" access="read"/>
    <property name="CanPause" type="b" access="read"/>
    <property name="CanSeek" type="b" access="read"/>
    <property name="CanControl" type="b" access="read"/>
  </interface>
</node>)";

// Object-path elements take [A-Za-z0-9_] only; anything else is written as _XX.
std::string pathElement(const std::string& text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c)) {
      out += static_cast<char>(c);
    } else {
      out += '_';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out.empty() ? "_" : out;
}

// The session bus's address, when there is one; never one that would launch a bus.
std::optional<std::string> sessionBusAddress() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) {
    return std::string(address);
  }
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
    const std::filesystem::path socket = std::filesystem::path(runtime) / "bus";
    std::error_code error;
    if (std::filesystem::is_socket(socket, error)) return "unix:path=" + socket.string();
  }
  return std::nullopt;
}

}  // namespace

struct MprisPlayer::State {
  std::shared_ptr<QSOPlaybackEngine> player;
  Book book;
  std::string busName;

  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;
  GDBusConnection* bus = nullptr;
  GDBusNodeInfo* node = nullptr;
  guint rootRegistration = 0;
  guint playerRegistration = 0;
  std::thread thread;
  NotificationCenter::Token token = 0;

  // What listeners were last told; on the thread only.
  std::string toldStatus;
  GVariant* toldMetadata = nullptr;

  ~State() {
    if (toldMetadata) g_variant_unref(toldMetadata);
    if (node) g_dbus_node_info_unref(node);
    if (bus) g_object_unref(bus);
    if (loop) g_main_loop_unref(loop);
    if (context) g_main_context_unref(context);
  }

  std::string playbackStatus() const {
    switch (player->playerStatus()) {
      case QSOPlayerStatusPaused:
        return "Paused";
      case QSOPlayerStatusUnloaded:
        return "Stopped";
      case QSOPlayerStatusPlaying:
      case QSOPlayerStatusLoading:
        break;
    }
    return "Playing";  // loading is on its way to playing
  }

  std::string trackPath(const QSOChapterDescription& chapter) const {
    return "/io/sonorell/track/" + pathElement(chapter.audiobookID()) + "/" +
           std::to_string(chapter.partNumber()) + "/" + std::to_string(chapter.chapterNumber());
  }

  GVariant* metadata() const {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sv}"));
    const auto chapter = player->currentLoadedChapter();
    const std::string track =
        chapter ? trackPath(*chapter) : "/org/mpris/MediaPlayer2/TrackList/NoTrack";
    g_variant_builder_add(&builder, "{sv}", "mpris:trackid",
                          g_variant_new_object_path(track.c_str()));
    g_variant_builder_add(&builder, "{sv}", "xesam:album",
                          g_variant_new_string(book.title.c_str()));
    if (chapter) {
      std::string title = "Chapter " + std::to_string(chapter->chapterNumber());
      if (chapter->partNumber() > 0) {
        title = "Part " + std::to_string(chapter->partNumber()) + ", " + title;
      }
      g_variant_builder_add(&builder, "{sv}", "xesam:title", g_variant_new_string(title.c_str()));
      g_variant_builder_add(&builder, "{sv}", "xesam:trackNumber",
                            g_variant_new_int32(static_cast<gint32>(chapter->chapterNumber())));
      if (chapter->partNumber() > 0) {
        g_variant_builder_add(&builder, "{sv}", "xesam:discNumber",
                              g_variant_new_int32(static_cast<gint32>(chapter->partNumber())));
      }
      const auto length = static_cast<gint64>(player->currentDuration()) * kMicroseconds;
      if (length > 0) {
        g_variant_builder_add(&builder, "{sv}", "mpris:length", g_variant_new_int64(length));
      }
    }
    return g_variant_builder_end(&builder);
  }

  GVariant* property(const std::string& interface, const std::string& name) const {
    if (interface == kRootInterface) {
      if (name == "CanQuit" || name == "CanRaise" || name == "HasTrackList") {
        return g_variant_new_boolean(FALSE);
      }
      if (name == "Identity") return g_variant_new_string("Sonorell");
      if (name == "SupportedUriSchemes" || name == "SupportedMimeTypes") {
        return g_variant_new_strv(nullptr, 0);
      }
      return nullptr;
    }
    if (name == "PlaybackStatus") return g_variant_new_string(playbackStatus().c_str());
    if (name == "Rate") return g_variant_new_double(player->currentRate());
    if (name == "Metadata") return metadata();
    if (name == "Volume") return g_variant_new_double(1.0);
    if (name == "Position") {
      return g_variant_new_int64(static_cast<gint64>(player->currentOffset()) * kMicroseconds);
    }
    if (name == "MinimumRate") return g_variant_new_double(kMinRate);
    if (name == "MaximumRate") return g_variant_new_double(kMaxRate);
    const bool loaded = player->currentLoadedChapter().has_value();
    if (name == "CanGoNext" || name == "CanGoPrevious" || name == "CanPlay" || name == "CanPause" ||
        name == "CanSeek") {
      return g_variant_new_boolean(loaded);
    }
    if (name == "CanControl") return g_variant_new_boolean(TRUE);
    return nullptr;
  }

  void seekTo(gint64 microseconds) {
    const auto seconds = static_cast<uint64_t>(std::max<gint64>(0, microseconds) / kMicroseconds);
    player->setCurrentOffset(seconds);
    g_dbus_connection_emit_signal(
        bus, nullptr, kObjectPath, kPlayerInterface, "Seeked",
        g_variant_new("(x)", static_cast<gint64>(seconds) * kMicroseconds), nullptr);
  }

  // Answers one call of the player interface; false for a method we do not know.
  bool call(const std::string& method, GVariant* parameters) {
    const auto status = player->playerStatus();
    if (method == "PlayPause") {
      if (status == QSOPlayerStatusPaused) {
        player->resume();
      } else {
        player->pause();
      }
    } else if (method == "Play") {
      if (status == QSOPlayerStatusPaused) player->resume();
    } else if (method == "Pause" || method == "Stop") {
      // Stopping would end the play command; a stopped audiobook is a paused one.
      if (status == QSOPlayerStatusPlaying || status == QSOPlayerStatusLoading) player->pause();
    } else if (method == "Next") {
      player->nextChapter();
    } else if (method == "Previous") {
      player->previousChapter();
    } else if (method == "Seek") {
      gint64 offset = 0;
      g_variant_get(parameters, "(x)", &offset);
      seekTo(static_cast<gint64>(player->currentOffset()) * kMicroseconds + offset);
    } else if (method == "SetPosition") {
      const gchar* track = nullptr;
      gint64 position = 0;
      g_variant_get(parameters, "(&ox)", &track, &position);
      const auto chapter = player->currentLoadedChapter();
      // A position for a track that is no longer current is ignored, as MPRIS asks.
      if (chapter && trackPath(*chapter) == track && position >= 0) seekTo(position);
    } else {
      return false;
    }
    return true;
  }

  // Tells listeners what changed since they were last told.
  void refresh() {
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
    bool any = false;
    const std::string status = playbackStatus();
    if (status != toldStatus) {
      toldStatus = status;
      g_variant_builder_add(&changed, "{sv}", "PlaybackStatus",
                            g_variant_new_string(status.c_str()));
      any = true;
    }
    GVariant* now = g_variant_ref_sink(metadata());
    if (!toldMetadata || !g_variant_equal(now, toldMetadata)) {
      if (toldMetadata) g_variant_unref(toldMetadata);
      toldMetadata = g_variant_ref(now);
      g_variant_builder_add(&changed, "{sv}", "Metadata", now);
      any = true;
    }
    g_variant_unref(now);
    GVariant* changes = g_variant_builder_end(&changed);
    if (!any) {
      g_variant_unref(g_variant_ref_sink(changes));
      return;
    }
    g_dbus_connection_emit_signal(
        bus, nullptr, kObjectPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
        g_variant_new("(s@a{sv}@as)", kPlayerInterface, changes, g_variant_new_strv(nullptr, 0)),
        nullptr);
  }

  // Asks the bus for `name` without queueing; true when we hold it.
  bool requestName(const std::string& name) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name.c_str(), 4u /* DBUS_NAME_FLAG_DO_NOT_QUEUE */),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (!reply) {
      g_clear_error(&error);
      return false;
    }
    guint32 result = 0;
    g_variant_get(reply, "(u)", &result);
    g_variant_unref(reply);
    return result == 1 || result == 4;  // primary owner, or already the owner
  }

  bool registerObjects() {
    static const GDBusInterfaceVTable vtable = {
        [](GDBusConnection*, const gchar*, const gchar*, const gchar* interface,
           const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
           gpointer data) {
          auto* self = static_cast<State*>(data);
          if (g_strcmp0(interface, kRootInterface) == 0 || self->call(method, parameters)) {
            g_dbus_method_invocation_return_value(invocation, nullptr);
            return;
          }
          g_dbus_method_invocation_return_dbus_error(
              invocation, "org.mpris.MediaPlayer2.Error.NotSupported", "not supported");
        },
        [](GDBusConnection*, const gchar*, const gchar*, const gchar* interface, const gchar* name,
           GError** error, gpointer data) -> GVariant* {
          auto* value = static_cast<State*>(data)->property(interface, name);
          if (!value) {
            g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "no property %s", name);
          }
          return value;
        },
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
           GVariant* value, GError**, gpointer data) -> gboolean {
          auto* self = static_cast<State*>(data);
          if (g_strcmp0(name, "Rate") == 0) {
            const double rate = g_variant_get_double(value);
            // A rate of 0 is a pause, as MPRIS has it.
            if (rate <= 0) {
              self->player->pause();
            } else {
              self->player->setCurrentRate(
                  static_cast<float>(std::clamp(rate, kMinRate, kMaxRate)));
            }
          }
          return TRUE;  // the volume stays where the desktop's mixer puts it
        },
        {}};
    GError* error = nullptr;
    node = g_dbus_node_info_new_for_xml(kIntrospection, &error);
    if (!node) {
      g_clear_error(&error);
      return false;
    }
    rootRegistration = g_dbus_connection_register_object(
        bus, kObjectPath, g_dbus_node_info_lookup_interface(node, kRootInterface), &vtable, this,
        nullptr, nullptr);
    playerRegistration = g_dbus_connection_register_object(
        bus, kObjectPath, g_dbus_node_info_lookup_interface(node, kPlayerInterface), &vtable, this,
        nullptr, nullptr);
    if (!rootRegistration || !playerRegistration) return false;
    for (const std::string& name :
         {std::string(kMprisBusName),
          std::string(kMprisBusName) + ".instance" + std::to_string(::getpid())}) {
      if (requestName(name)) {
        busName = name;
        return true;
      }
    }
    return false;
  }

  void run(std::promise<bool> registered) {
    g_main_context_push_thread_default(context);
    const bool ok = registerObjects();
    registered.set_value(ok);
    if (ok) {
      refresh();
      g_main_loop_run(loop);
    }
    if (rootRegistration) g_dbus_connection_unregister_object(bus, rootRegistration);
    if (playerRegistration) g_dbus_connection_unregister_object(bus, playerRegistration);
    // Closing the connection gives the name back.
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_main_context_pop_thread_default(context);
  }
};

std::unique_ptr<MprisPlayer> MprisPlayer::start(std::shared_ptr<QSOPlaybackEngine> player,
                                                Book book) {
  const auto address = sessionBusAddress();
  if (!address || !player) return nullptr;
  GError* error = nullptr;
  GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
      address->c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  if (!bus) {
    g_clear_error(&error);
    return nullptr;
  }
  auto state = std::make_unique<State>();
  state->player = std::move(player);
  state->book = std::move(book);
  if (state->book.title.empty()) state->book.title = state->book.id;
  state->bus = bus;
  state->context = g_main_context_new();
  state->loop = g_main_loop_new(state->context, FALSE);
  std::promise<bool> registered;
  auto answer = registered.get_future();
  State* raw = state.get();
  state->thread = std::thread(
      [raw, promise = std::move(registered)]() mutable { raw->run(std::move(promise)); });
  if (!answer.get()) {
    state->thread.join();
    return nullptr;
  }
  // Any engine notification may change the status or the chapter: look again on the thread.
  state->token = NotificationCenter::defaultCenter().addObserver("", [raw](const Notification&) {
    g_main_context_invoke(
        raw->context,
        [](gpointer data) -> gboolean {
          static_cast<State*>(data)->refresh();
          return G_SOURCE_REMOVE;
        },
        raw);
  });
  return std::unique_ptr<MprisPlayer>(new MprisPlayer(std::move(state)));
}

MprisPlayer::MprisPlayer(std::unique_ptr<State> state) : state_(std::move(state)) {}

MprisPlayer::~MprisPlayer() {
  NotificationCenter::defaultCenter().removeObserver(state_->token);
  g_main_context_invoke(
      state_->context,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      },
      state_->loop);
  state_->thread.join();
}

const std::string& MprisPlayer::busName() const { return state_->busName; }

void MprisPlayer::setAlbum(std::string title) {
  struct Change {
    State* state;
    std::string title;
  };
  g_main_context_invoke_full(
      state_->context, G_PRIORITY_DEFAULT,
      [](gpointer data) -> gboolean {
        auto* change = static_cast<Change*>(data);
        change->state->book.title = std::move(change->title);
        change->state->refresh();
        return G_SOURCE_REMOVE;
      },
      new Change{state_.get(), std::move(title)},
      [](gpointer data) { delete static_cast<Change*>(data); });
}

}  // namespace sonorell::cli
