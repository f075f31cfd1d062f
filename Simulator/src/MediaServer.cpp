#include <utility>  // ahead of Asio, which forgets it

#include "MediaServer.h"

#include "Glib.h"
#include "LivePipeline.h"
#include "LiveStreams.h"
#include "Log.h"
#include "MediaFile.h"
#include "MediaPipeline.h"
#include "RtspAuthentication.h"
#include "RtspConnections.h"
#include "RtspThread.h"
#include "SimulatedMedia.h"
#include "SocketHandle.h"
#include "TalkBack.h"
#include "TalkBackMedia.h"

#include <gst/rtsp-server/rtsp-server.h>

#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>

namespace simulator
{
namespace
{

constexpr const char* connectionKey = "simulator-connection";

MediaServer::ConnectionId connectionOf(GstRTSPClient* client)
{
    return GPOINTER_TO_SIZE(g_object_get_data(G_OBJECT(client), connectionKey));
}

struct Method {
    const char* name;
    const char* beforeSignal;  ///< asks whether the request may go on
};

constexpr Method methods[] = {
    {"OPTIONS", "pre-options-request"},
    {"DESCRIBE", "pre-describe-request"},
    {"SETUP", "pre-setup-request"},
    {"PLAY", "pre-play-request"},
    {"PAUSE", "pre-pause-request"},
    {"TEARDOWN", "pre-teardown-request"},
    {"GET_PARAMETER", "pre-get-parameter-request"},
    {"SET_PARAMETER", "pre-set-parameter-request"},
};

void requireElements(const Options& options)
{
    std::string text;
    for (const std::string& sentence : missingElements(options))
        text += (text.empty() ? "" : "\n") + sentence;
    if (!text.empty())
        throw std::runtime_error(text);
}

}  // namespace

struct MediaServer::State {
    /// What a request's signal handler needs to know; one for each method, as long-lived as the server.
    struct Hook {
        State* state;
        const Method* method;
    };

    State(const FaultTable& faultTable, TalkBack& loudspeakers) : faults(faultTable), talkBack(loudspeakers)
    {
        for (const Method& method : methods)
            hooks.push_back({this, &method});
    }

    const FaultTable& faults;
    TalkBack& talkBack;
    Options options;  ///< never changed once the server runs
    GlibPointer<GstRTSPServer> server;
    std::optional<RtspThread> thread;
    ConnectionId arriving = 0;  ///< the connection whose client is being made; used on `thread` only
    std::deque<Hook> hooks;

    RtspConnections connections;
    std::optional<LiveStreams> streams;

    std::mutex mutex;  ///< guards what follows: the I/O context and `thread` come here
    std::map<std::string, unsigned> requestCounts;

    const LiveStreams::Stream* streamAt(const GstRTSPContext* context) const;
    void beginTalk(GstRTSPClient* client, const GstRTSPContext* context);
    static gchar* onRequirements(GstRTSPClient*, GstRTSPContext* context, gchar** wanted, gpointer self);
    static void onSession(GstRTSPClient*, GstRTSPSession* session, gpointer self);
    static void onClient(GstRTSPServer*, GstRTSPClient* client, gpointer self);
    std::optional<GstRTSPStatusCode> faultFor(const char* method, const GstRTSPContext* context) const;
    static GstRTSPStatusCode beforeRequest(GstRTSPClient* client, GstRTSPContext* context, gpointer hook);
    static void onMessage(GstRTSPClient*, GstRTSPContext* context, GstRTSPMessage* message, gpointer self);
    static void onPlay(GstRTSPClient* client, GstRTSPContext* context, gpointer);
    static void onClosed(GstRTSPClient* client, gpointer self);
};

namespace
{

constexpr const char* joiningKey = "simulator-joining";  ///< set when a client's stream was running before its PLAY

/// What a request of a running session is about; null when there is none.
GlibPointer<GstRTSPSessionMedia> sessionMediaOf(const GstRTSPContext* context)
{
    gint matched = 0;
    if (context->session == nullptr || context->uri == nullptr)
        return nullptr;
    return GlibPointer<GstRTSPSessionMedia>(
        gst_rtsp_session_dup_media(context->session, context->uri->abspath, &matched));
}

/// Whether the stream that a PLAY is for has clients already.
bool isSending(const GstRTSPContext* context)
{
    const auto sessionMedia = sessionMediaOf(context);
    GstRTSPMedia* const media = sessionMedia ? gst_rtsp_session_media_get_media(sessionMedia.get()) : nullptr;
    return media != nullptr && simulator::isSending(media);
}

bool requiresSomething(const GstRTSPContext* context)
{
    return context->request != nullptr &&
           gst_rtsp_message_get_header(context->request, GST_RTSP_HDR_REQUIRE, nullptr, 0) == GST_RTSP_OK;
}

}  // namespace

/// The stream that a request is for; null when it is for none.
const LiveStreams::Stream* MediaServer::State::streamAt(const GstRTSPContext* context) const
{
    return context->uri != nullptr ? streams->find(context->uri->abspath) : nullptr;
}

void MediaServer::State::onSession(GstRTSPClient*, GstRTSPSession* session, gpointer data)
{
    gst_rtsp_session_set_timeout(session, static_cast<State*>(data)->options.sessionTimeout);
}

void MediaServer::State::onClient(GstRTSPServer*, GstRTSPClient* client, gpointer data)
{
    auto& self = *static_cast<State*>(data);
    for (Hook& hook : self.hooks)
        g_signal_connect(client, hook.method->beforeSignal, G_CALLBACK(beforeRequest), &hook);
    g_signal_connect(client, "send-message", G_CALLBACK(onMessage), data);
    g_signal_connect(client, "new-session", G_CALLBACK(onSession), data);
    g_signal_connect(client, "play-request", G_CALLBACK(onPlay), nullptr);
    g_signal_connect(client, "closed", G_CALLBACK(onClosed), data);
    g_signal_connect(client, "check-requirements", G_CALLBACK(onRequirements), data);
    g_object_set_data(G_OBJECT(client), connectionKey, GSIZE_TO_POINTER(self.arriving));
}

std::optional<GstRTSPStatusCode> MediaServer::State::faultFor(const char* method, const GstRTSPContext* context) const
{
    const std::string path = context->uri != nullptr ? context->uri->abspath : "*";
    const auto fault = faults.find(FaultKind::rtspStatus, method + (' ' + path));
    if (!fault)
        return std::nullopt;
    logLine("RTSP fault " + fault->text);
    return static_cast<GstRTSPStatusCode>(fault->argument);
}

GstRTSPStatusCode MediaServer::State::beforeRequest(GstRTSPClient* client, GstRTSPContext* context, gpointer data)
{
    const Hook& hook = *static_cast<Hook*>(data);
    {
        const std::lock_guard lock(hook.state->mutex);
        ++hook.state->requestCounts[hook.method->name];
    }
    logLine(std::string("RTSP ") + hook.method->name + ' ' + (context->uri != nullptr ? context->uri->abspath : "*"));
    if (context->method == GST_RTSP_OPTIONS)
        return GST_RTSP_STS_OK;  // see onMessage
    if (const LiveStreams::Stream* const stream = hook.state->streamAt(context)) {
        if (stream->forTalkOnly && !requiresSomething(context) && context->session == nullptr)
            return GST_RTSP_STS_NOT_FOUND;
        hook.state->connections.noteWish(connectionOf(client), stream->activity.path);
    }
    const auto fault = hook.state->faultFor(hook.method->name, context);
    if (context->method == GST_RTSP_PLAY && !fault) {
        g_object_set_data(G_OBJECT(client), joiningKey, GINT_TO_POINTER(isSending(context)));
        hook.state->beginTalk(client, context);
    }
    return fault.value_or(GST_RTSP_STS_OK);
}

/// The library (1.22) frees what it has not allocated when OPTIONS is refused beforehand, so that answer is changed on
/// its way out.
void MediaServer::State::onMessage(GstRTSPClient*, GstRTSPContext* context, GstRTSPMessage* message, gpointer data)
{
    if (context == nullptr || context->method != GST_RTSP_OPTIONS || message->type != GST_RTSP_MESSAGE_RESPONSE)
        return;
    const auto status = static_cast<State*>(data)->faultFor("OPTIONS", context);
    if (!status)
        return;
    auto& response = message->type_data.response;
    response.code = *status;
    g_free(response.reason);
    response.reason = g_strdup(gst_rtsp_status_as_text(*status));
}

/// A client that joins a running stream should not have to wait for the next key frame.
void forceKeyFrameOf(GstRTSPMedia* media)
{
    const GlibPointer<GstElement> pipeline(gst_rtsp_media_get_element(media));
    forceKeyFrame(pipeline.get());
}

void MediaServer::State::onPlay(GstRTSPClient* client, GstRTSPContext* context, gpointer)
{
    // The first client of a stream gets its first frame anyhow.
    if (context->media != nullptr && g_object_get_data(G_OBJECT(client), joiningKey) != nullptr)
        forceKeyFrameOf(context->media);
}

/// The features that a client requires and the device lacks, for the answer.
gchar* MediaServer::State::onRequirements(GstRTSPClient*, GstRTSPContext* context, gchar** wanted, gpointer data)
{
    const LiveStreams::Stream* const stream = static_cast<State*>(data)->streamAt(context);
    // A path that does not exist is for the request itself to refuse.
    const bool hasBackChannel = stream == nullptr || stream->activity.backChannel != BackChannel::none;
    std::string lacking;
    for (; *wanted != nullptr; ++wanted)
        if (!hasBackChannel || std::string_view(*wanted) != backChannelTag)
            lacking += (lacking.empty() ? "" : ", ") + std::string(*wanted);
    return g_strdup(lacking.c_str());
}

/// A client that is about to play the back channel begins to speak.
void MediaServer::State::beginTalk(GstRTSPClient* client, const GstRTSPContext* context)
{
    const LiveStreams::Stream* const stream = streamAt(context);
    const auto sessionMedia = sessionMediaOf(context);
    if (stream == nullptr || !sessionMedia)
        return;
    GstRTSPMedia* const media = gst_rtsp_session_media_get_media(sessionMedia.get());
    const auto track = backChannelOf(media);
    if (!track || gst_rtsp_session_media_get_transport(sessionMedia.get(), *track) == nullptr || isListenedTo(media))
        return;
    listenToBackChannel(media, [this, stream, connection = connectionOf(client),
                                call = talkBack.begin(stream->channel)](const TalkPacket& packet) {
        const auto count = call->take(packet.payloadType, packet.sequence, packet.payload);
        const auto fault = faults.find(FaultKind::talkDrop, "PLAY " + stream->activity.path);
        if (fault && count >= fault->argument)
            connections.close(connection);
    });
}

void MediaServer::State::onClosed(GstRTSPClient* client, gpointer data)
{
    static_cast<State*>(data)->connections.remove(connectionOf(client));
}

MediaServer::MediaServer(Options& options, const std::string& realm, const FaultTable& faults, TalkBack& talkBack,
                         Caption caption)
    : state(std::make_unique<State>(faults, talkBack))
{
    GError* error = nullptr;
    if (!gst_init_check(nullptr, nullptr, &error)) {
        const GlibPointer<GError> owned(error);
        throw std::runtime_error(std::string("GStreamer cannot start: ") + owned->message);
    }
    requireElements(options);
    std::shared_ptr<const MediaFile> file;
    if (!options.mediaFile.empty()) {
        file = MediaFile::load(options.mediaFile);
        options.codec = file->codec;
        options.size = options.subSize = file->size;
        options.framesPerSecond = file->framesPerSecond;
    }

    state->options = options;
    state->server.reset(gst_rtsp_server_new());
    if (options.authentication != Authentication::none)
        gst_rtsp_server_set_auth(state->server.get(), makeAuthentication(options, realm).get());
    state->thread.emplace(state->server.get());
    g_signal_connect(state->server.get(), "client-connected", G_CALLBACK(State::onClient), state.get());
    state->streams.emplace(state->server.get(), state->options, faults, state->connections, std::move(file),
                           std::move(caption));
}

MediaServer::~MediaServer()
{
    const auto remove = [](GstRTSPServer*, GstRTSPClient*, gpointer) { return GST_RTSP_FILTER_REMOVE; };
    state->thread->run([this, remove] {
        g_list_free_full(gst_rtsp_server_client_filter(state->server.get(), remove, nullptr), g_object_unref);
    });
    state->thread.reset();
    state->server.reset();
    gst_rtsp_thread_pool_cleanup();  // waits for the server's threads, whose handlers use `state`
}

std::vector<std::string> MediaServer::paths() const
{
    return state->streams->paths();
}

std::optional<MediaServer::ConnectionId> MediaServer::serve(boost::asio::ip::tcp::socket socket)
{
    boost::system::error_code error;
    const auto peer = socket.remote_endpoint(error);
    if (!error)
        socket.set_option(boost::asio::ip::tcp::no_delay(true), error);
    if (error)
        return std::nullopt;
    SocketHandle handle(std::move(socket));
    GSocket* const shared = g_socket_new_from_fd(static_cast<gint>(handle.get()), nullptr);
    if (shared == nullptr)
        return std::nullopt;
    handle.release();

    const ConnectionId connection = state->connections.add(shared);
    state->thread->post([state = state.get(), shared, connection, ip = peer.address().to_string(), port = peer.port()] {
        state->arriving = connection;
        // Takes the reference to the socket.
        gst_rtsp_server_transfer_connection(state->server.get(), shared, ip.c_str(), port, nullptr);
    });
    return connection;
}

void MediaServer::close(ConnectionId connection)
{
    state->connections.close(connection);
}

void MediaServer::closeAll()
{
    state->connections.closeAll();
}

std::optional<std::string> MediaServer::refuseEncoding(const StreamEncoding& encoding) const
{
    if (!state->options.mediaFile.empty())
        return "a media file cannot be changed";
    const std::string missing = missingEncoder(encoding.codec);
    return missing.empty() ? std::nullopt : std::optional(missing);
}

void MediaServer::encode(unsigned channel, unsigned stream, const StreamEncoding& encoding)
{
    state->streams->encode(channel, stream, encoding, LiveStreams::Manner::asTold);
}

void MediaServer::encodeBesideRunning(unsigned channel, unsigned stream, const StreamEncoding& encoding)
{
    state->streams->encode(channel, stream, encoding, LiveStreams::Manner::besideRunning);
}

void MediaServer::show(unsigned channel, const PictureLook& look)
{
    state->streams->show(channel, look);
}

void MediaServer::hear(unsigned channel, const Microphone& microphone)
{
    state->streams->hear(channel, microphone);
}

void MediaServer::expireSessions()
{
    state->thread->post([server = state->server.get()] {
        const GlibPointer<GstRTSPSessionPool> pool(gst_rtsp_server_get_session_pool(server));
        gst_rtsp_session_pool_cleanup(pool.get());
    });
}

Json::Value MediaServer::counters() const
{
    Json::Value out(Json::objectValue);
    out["connections"] = state->connections.total();
    out["openConnections"] = static_cast<Json::UInt64>(state->connections.openCount());
    {
        const std::lock_guard lock(state->mutex);
        out["requests"] = Json::Value(Json::objectValue);
        for (const auto& [method, count] : state->requestCounts)
            out["requests"][method] = count;
    }
    out["streams"] = state->streams->counters();
    return out;
}

void MediaServer::clearCounters()
{
    state->streams->clearCounters();
    state->connections.forgetTotal();
    const std::lock_guard lock(state->mutex);
    state->requestCounts.clear();
}

}  // namespace simulator
