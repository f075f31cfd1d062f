#include "AdminResources.h"

#include "Archive.h"
#include "DeviceEvents.h"
#include "DeviceSettings.h"
#include "LapiEnvelope.h"
#include "MediaServer.h"
#include "PtzHeads.h"
#include "ReplayServer.h"
#include "Replies.h"
#include "TalkBack.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace simulator
{
namespace
{

constexpr unsigned mainStream = 0;
constexpr unsigned defaultRebootMs = 2000;
constexpr unsigned longestRebootMs = 600'000;

/// The text member `name` of a JSON body; nothing when there is none.
std::optional<std::string> textMember(const std::string& body, const char* name)
{
    const auto json = parseJson(body);
    if (!json || !json->isObject() || !(*json)[name].isString())
        return std::nullopt;
    return (*json)[name].asString();
}

Json::Value listFaults(const FaultTable& faults)
{
    Json::Value list(Json::arrayValue);
    for (const Fault& fault : faults.list())
        list.append(fault.text);
    return list;
}

Reply addFault(FaultTable& faults, const Call& call)
{
    const auto text = textMember(call.body, "fault");
    if (!text)
        return badRequest("the body is not {\"fault\": \"NAME[:N][@TEXT]\"}");
    auto fault = parseFault(*text);
    if (const auto* why = std::get_if<std::string>(&fault))
        return badRequest(*why);
    faults.add(std::get<Fault>(std::move(fault)));
    return withData(listFaults(faults));
}

Reply removeFaults(FaultTable& faults, const Call& call)
{
    if (call.body.empty()) {
        faults.clear();
        return withData(listFaults(faults));
    }
    const auto text = textMember(call.body, "fault");
    if (!text || faults.remove(*text) == 0)
        return badRequest("the body names no fault that is in force");
    return withData(listFaults(faults));
}

Reply reboot(const std::function<void(std::chrono::milliseconds)>& action, const Call& call)
{
    unsigned milliseconds = defaultRebootMs;
    if (!call.body.empty()) {
        const auto json = parseJson(call.body);
        if (!json || !json->isObject() || !(*json)["milliseconds"].isUInt() ||
            (*json)["milliseconds"].asUInt() > longestRebootMs)
            return badRequest("the body is not {\"milliseconds\": 0..600000}");
        milliseconds = (*json)["milliseconds"].asUInt();
    }
    Reply reply;
    reply.afterwards = [action, milliseconds] { action(std::chrono::milliseconds(milliseconds)); };
    return reply;
}

/// The main stream of every channel gets another codec or size, as from a user of the device.
Reply changePicture(Administered& admin, const Call& call)
{
    std::optional<Codec> codec;
    std::optional<Size> size;
    if (const auto text = textMember(call.body, "codec")) {
        codec = parseCodec(*text);
        if (!codec)
            return badRequest("\"codec\" is none of \"h264\", \"h265\" and \"mjpeg\"");
    }
    if (const auto text = textMember(call.body, "size")) {
        size = parseSize(*text);
        if (!size)
            return badRequest("\"size\" is not like \"640x360\" (even, 64..8192)");
    }
    if (!codec && !size)
        return badRequest("the body names neither a codec nor a size");
    for (unsigned channel = 0; channel < admin.settings.channelCount(); ++channel) {
        VideoSettings& video = admin.settings.video(channel);
        StreamEncoding encoding = video.encoding(mainStream);
        encoding.codec = codec.value_or(encoding.codec);
        encoding.size = size.value_or(encoding.size);
        if (const auto why = admin.media.refuseEncoding(encoding))
            return badRequest(*why);
        video.change(mainStream, encoding.codec, encoding.size);
        admin.media.encodeBesideRunning(channel, mainStream, encoding);
    }
    return Reply{};
}

void addActivity(Router& router, const std::shared_ptr<Administered>& admin)
{
    router.add("GET", "/simulator/counters", [admin](const Call&) {
        Json::Value data = admin->activity.counters();
        data["rtsp"] = admin->media.counters();
        data["archive"] = admin->archive.counters();
        if (admin->replays != nullptr)
            data["archive"]["replay"] = admin->replays->counters();
        return withData(std::move(data));
    });
    router.add("DELETE", "/simulator/counters", [admin](const Call&) {
        admin->activity.clear();
        admin->media.clearCounters();
        admin->events.clearCounters();
        admin->archive.clearCounters();
        if (admin->replays != nullptr)
            admin->replays->clearCounters();
        return Reply{};
    });
    router.add("GET", "/simulator/state", [admin](const Call&) {
        Json::Value data = admin->events.state();
        data["ptz"] = admin->heads.state();
        data["settings"] = admin->settings.state();
        data["talkBack"] = admin->talkBack.state();
        data["archive"] = admin->archive.state();
        if (admin->replays != nullptr)
            data["archive"]["replays"] = admin->replays->replays();
        return withData(std::move(data));
    });
    router.add("GET", "/simulator/requests", [admin](const Call&) { return withData(admin->activity.requests()); });
}

void addFaults(Router& router, const std::shared_ptr<Administered>& admin)
{
    router.add("GET", "/simulator/faults", [admin](const Call&) { return withData(listFaults(admin->faults)); });
    router.add("POST", "/simulator/faults", [admin](const Call& call) { return addFault(admin->faults, call); });
    router.add("DELETE", "/simulator/faults", [admin](const Call& call) { return removeFaults(admin->faults, call); });
}

void addOutages(Router& router, const std::shared_ptr<Administered>& admin)
{
    const auto command = [](const std::function<void()>& action) {
        return [action](const Call&) {
            action();
            return Reply{};
        };
    };
    router.add("POST", "/simulator/rtsp/drop", command(admin->dropRtspConnections));
    router.add("POST", "/simulator/rtsp/stop", command(admin->closeRtspPort));
    router.add("POST", "/simulator/rtsp/start", command(admin->openRtspPort));
    router.add("POST", "/simulator/picture", [admin](const Call& call) { return changePicture(*admin, call); });
    router.add("POST", "/simulator/reboot", [admin](const Call& call) { return reboot(admin->reboot, call); });
}

}  // namespace

void addAdminResources(Router& router, Administered administered)
{
    const auto admin = std::make_shared<Administered>(std::move(administered));
    addActivity(router, admin);
    addFaults(router, admin);
    addOutages(router, admin);
}

}  // namespace simulator
