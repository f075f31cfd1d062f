#include <utility>  // ahead of Asio, which forgets it

#include "Simulator.h"

#include "Activity.h"
#include "AdminResources.h"
#include "Archive.h"
#include "Authentication.h"
#include "Certificate.h"
#include "DeviceEvents.h"
#include "DeviceSettings.h"
#include "DeviceState.h"
#include "EventResources.h"
#include "HttpServer.h"
#include "IoState.h"
#include "LapiEnvelope.h"
#include "LapiResources.h"
#include "LapiService.h"
#include "Listener.h"
#include "Log.h"
#include "MediaServer.h"
#include "Notification.h"
#include "PtzHeads.h"
#include "PtzResources.h"
#include "RecordResources.h"
#include "ReplayServer.h"
#include "RtspPort.h"
#include "SettingsResources.h"
#include "TalkBack.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <optional>
#include <stdexcept>

namespace simulator
{
namespace
{

using boost::asio::ip::tcp;
using boost::system::error_code;

constexpr auto sessionCheckInterval = std::chrono::seconds(2);
constexpr std::string_view adminPrefix = "/simulator/";

tcp::endpoint endpointFor(const std::string& address, std::uint16_t port)
{
    error_code error;
    const auto parsed = boost::asio::ip::make_address(address, error);
    if (error)
        throw std::runtime_error("'" + address + "' is no address to listen on");
    return {parsed, port};
}

std::optional<EventScript> scriptOf(const Options& options)
{
    if (options.scriptFile.empty())
        return std::nullopt;
    return loadEventScript(options.scriptFile, options.inputs);
}

std::uint32_t unixSecondsNow()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

Authenticator::Settings authenticatorSettings(const Options& options, const std::string& realm)
{
    const Authentication scheme = options.authentication;
    return {.user = options.user,
            .password = options.password,
            .realm = realm,
            .digest = scheme == Authentication::digest || scheme == Authentication::both,
            .basic = scheme == Authentication::basic || scheme == Authentication::both,
            .nonceLifetime = options.nonceLifetime};
}

std::unique_ptr<ReplayServer> replayServer(const Options& options, const Archive& archive, const FaultTable& faults)
{
    if (!options.archive)
        return nullptr;
    Authenticator::Settings credentials = authenticatorSettings(options, macAddress);
    credentials.qop = false;
    credentials.nonceLifetime = std::chrono::hours(24);
    return std::make_unique<ReplayServer>(options, credentials, archive, faults);
}

}  // namespace

struct Simulator::State {
    State(boost::asio::io_context& context, Options given);

    SettingsEffects settingsEffects();
    HttpAnswer answerLapi(const HttpQuestion& question);
    void openPorts();
    void closePorts();
    void reboot(std::chrono::milliseconds duration);
    void watchSessions();
    void acceptLapi(tcp::socket socket, boost::asio::ssl::context* tls);

    Options options;
    FaultTable faults;
    PtzHeads heads;
    TalkBack talkBack;
    Archive archive;
    MediaServer media;                      ///< changes `options` to what a media file holds,
    DeviceState device;                     ///< which the device then reports
    std::unique_ptr<ReplayServer> replays;  ///< null without an archive
    DeviceSettings settings;
    IoState io;
    DeviceEvents events;
    Activity activity;
    Authenticator authenticator;

    Router lapiRoutes;
    Router adminRoutes;
    LapiService lapi;
    std::optional<boost::asio::ssl::context> tls;
    HttpServer lapiServer;
    HttpServer adminServer;
    boost::asio::steady_timer rebootTimer;
    boost::asio::steady_timer sessionTimer;

    Listener httpPort;
    std::optional<Listener> httpsPort;
    Listener adminPort;
    RtspPort rtspPort;
};

Simulator::State::State(boost::asio::io_context& context, Options given)
    : options(std::move(given)),
      faults(options.faults),
      heads(options.channels),
      talkBack(options.channels, options.backChannel, options.talkBack),
      archive(options, unixSecondsNow()),
      media(options, macAddress, faults, talkBack, [this](unsigned channel) { return heads.caption(channel); }),
      device(options),
      replays(replayServer(options, archive, faults)),
      settings(options),
      io(options.inputs, options.relays),
      events(context, io, scriptOf(options)),
      authenticator(authenticatorSettings(options, macAddress), randomNonce),
      lapi(lapiRoutes, authenticator, faults, activity),
      lapiServer({options.idleTimeout, options.maxConnections},
                 [this](const HttpQuestion& question) { return answerLapi(question); }),
      adminServer({std::chrono::minutes(1), 100},
                  [this](const HttpQuestion& question) { return answerAdministration(adminRoutes, question); }),
      rebootTimer(context),
      sessionTimer(context),
      httpPort(context, endpointFor(options.bindAddress, options.httpPort),
               [this](tcp::socket socket) { acceptLapi(std::move(socket), nullptr); }),
      adminPort(context, {boost::asio::ip::address_v4::loopback(), options.adminPort},
                [this](tcp::socket socket) { adminServer.serve(std::move(socket)); }),
      rtspPort(context, endpointFor(options.bindAddress, options.rtspPort), faults, media, replays.get())
{
    if (options.httpsPort) {
        tls.emplace(selfSignedContext(options.bindAddress));
        httpsPort.emplace(context, endpointFor(options.bindAddress, *options.httpsPort),
                          [this](tcp::socket socket) { acceptLapi(std::move(socket), &*tls); });
    }
    device.setPorts({httpPort.port(), httpsPort ? httpsPort->port() : 0u, rtspPort.port()});
    events.setHttpPort(httpPort.port());
    addLapiResources(lapiRoutes, device, options.pluralPorts);
    addSettingsResources(lapiRoutes, device, settings, settingsEffects());
    addPtzResources(lapiRoutes, device, heads);
    if (options.archive)
        addRecordResources(lapiRoutes, device, archive, faults);
    addEventResources(lapiRoutes, events, io);
    addEventAdministration(adminRoutes, events, io);
    addAdminResources(adminRoutes,
                      {activity, faults, media, events, heads, settings, talkBack, archive, replays.get(),
                       [this] { rtspPort.dropConnections(); }, [this] { rtspPort.open(); },
                       [this] { rtspPort.close(); }, [this](std::chrono::milliseconds duration) { reboot(duration); }});
    watchSessions();
}

SettingsEffects Simulator::State::settingsEffects()
{
    return {[this](unsigned stream, const StreamEncoding& encoding) {
                return stream < servedStreams ? media.refuseEncoding(encoding) : std::nullopt;
            },
            [this](unsigned channel, unsigned stream, const StreamEncoding& encoding) {
                media.encode(channel, stream, encoding);
            },
            [this](unsigned channel, const PictureLook& look) { media.show(channel, look); },
            [this](unsigned channel, const Microphone& microphone) {
                if (device.kind() == Kind::recorder)
                    return media.hear(channel, microphone);
                for (unsigned each = 0; each < device.channelCount(); ++each)  // the camera's only microphone
                    media.hear(each, microphone);
            }};
}

void Simulator::State::acceptLapi(tcp::socket socket, boost::asio::ssl::context* tlsContext)
{
    if (faults.find(FaultKind::refuse))
        return reset(socket);
    if (lapiServer.serve(std::move(socket), tlsContext))
        activity.countConnection();
    else
        activity.countRejectedConnection();
}

HttpAnswer Simulator::State::answerLapi(const HttpQuestion& question)
{
    if (question.fromLoopback && question.target.starts_with(adminPrefix))
        return answerAdministration(adminRoutes, question);
    return lapi.answer(question, Authenticator::Clock::now());
}

void Simulator::State::openPorts()
{
    httpPort.open();
    if (httpsPort)
        httpsPort->open();
    rtspPort.open();
}

void Simulator::State::closePorts()
{
    httpPort.close();
    if (httpsPort)
        httpsPort->close();
    rtspPort.close();
    lapiServer.closeConnections();
}

void Simulator::State::reboot(std::chrono::milliseconds duration)
{
    logLine("restarting");
    closePorts();
    authenticator.forgetNonces();
    events.forgetSubscriptions();
    rebootTimer.expires_after(duration);
    rebootTimer.async_wait([this](const error_code& cancelled) {
        if (cancelled)
            return;
        openPorts();
        logLine("restarted");
    });
}

void Simulator::State::watchSessions()
{
    sessionTimer.expires_after(sessionCheckInterval);
    sessionTimer.async_wait([this](const error_code& cancelled) {
        if (cancelled)
            return;
        media.expireSessions();
        watchSessions();
    });
}

Simulator::Simulator(boost::asio::io_context& context, Options options)
    : state(std::make_unique<State>(context, std::move(options)))
{}

Simulator::~Simulator() = default;

std::string Simulator::readyLine() const
{
    Json::Value line(Json::objectValue);
    line["event"] = "ready";
    line["kind"] = kindName(state->options.kind);
    line["channels"] = state->options.channels;
    line["user"] = state->options.user;
    line["httpPort"] = state->httpPort.port();
    line["httpsPort"] = state->httpsPort ? Json::Value(state->httpsPort->port()) : Json::Value();
    line["rtspPort"] = state->rtspPort.port();
    line["adminPort"] = state->adminPort.port();
    line["urls"] = Json::Value(Json::arrayValue);
    const std::string base = "rtsp://" + hostAndPort(state->options.bindAddress, state->rtspPort.port());
    for (const std::string& path : state->media.paths())
        line["urls"].append(base + path);

    return compactPrint(line);
}

void Simulator::stop()
{
    state->closePorts();
    state->adminPort.close();
    state->adminServer.closeConnections();
    state->events.stop();
    state->rebootTimer.cancel();
    state->sessionTimer.cancel();
}

}  // namespace simulator
