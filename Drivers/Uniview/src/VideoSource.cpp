#include <utility>

#include "VideoSource.h"

#include "ImageSettings.h"
#include "ModelParameters.h"
#include "ObjectName.h"
#include "StreamSettings.h"

#include <IpUtil/AsyncMultiRequest.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <optional>
#include <span>
#include <vector>

template class Tavro8::Utility::RTSPReceiverBase<Tavro8::GDRV::IVideoSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverSource<Tavro8::GDRV::IVideoSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverAdjustable<Tavro8::GDRV::IVideoSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverVideoSource<Uniview::Device>;

namespace Uniview
{
namespace
{
using settings::Group;
using settings::GroupTraits;
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;

constexpr const char* sourcePath = "Drivers/Uniview/src/VideoSource";
constexpr const char* applying = "Uniview::VideoSource::applySettings";
constexpr const char* closedBefore = "The device was closed before its settings were written";
constexpr const char* everything = "all";  // the resource name of the last result

/// For one exchange, from the time on that those of the other resources leave it a connection.
boost::posix_time::time_duration requestLimit()
{
    return boost::posix_time::seconds(15);
}

constexpr std::size_t indexOf(const GroupTraits& group)
{
    return static_cast<std::size_t>(group.group);
}

bool concerns(const GroupTraits& group, const ParameterMap& given)
{
    return group.group == Group::stream ? settings::concernsStream(given) : settings::concernsImage(group.group, given);
}

bool hasStreamSettings(std::uint32_t deviceKind)
{
    return std::ranges::any_of(settings::groupsOf(deviceKind),
                               [](const GroupTraits& group) { return group.group == Group::stream; });
}

/// In the order of the groups.
using Editor = settings::Edit (VideoSource::*)(Json::Value& data, const ParameterMap& given) const;
constexpr std::array<Editor, settings::groupCount> editors{
    &VideoSource::streamSettings,       &VideoSource::captureModeSettings,  &VideoSource::exposureSettings,
    &VideoSource::illuminationSettings, &VideoSource::whiteBalanceSettings, &VideoSource::defogSettings,
    &VideoSource::ldcSettings,          &VideoSource::imageEnhanceSettings,
};
}  // namespace

/// The settings that are being applied.
struct VideoSource::SettingsRun {
    SettingsRun(const ParameterMap& given, std::shared_ptr<Device> of, std::uint64_t closings, SettingsQueue::Turn turn)
        : given(given),
          device(std::move(of)),
          closings(closings),
          turn(std::move(turn)),
          groups(settings::groupsOf(device->GetDeviceKind())),
          connection(device->getHttpConnectionInfo()),
          exchanges(device->service(), connection, device->getLogger().get())
    {}

    /// Told how each exchange ended in transport.
    void noteExchange(const Tavro8::error_code& ec)
    {
        if (ec)
            return failures.push_back(ec);
        answered = true;
        device->reportResourceExchange(ec);
    }

    /// At the end. A device that has answered for one resource is there, whatever came of the others. An earlier
    /// connection says nothing about the present one.
    void reportFailures() const
    {
        if (answered || connection != device->getHttpConnectionInfo())
            return;
        for (const Tavro8::error_code& ec : failures)
            device->reportResourceExchange(ec);
    }

    /// Of the resources that the values are for, the first failure in the order of the table.
    std::int32_t overallResult() const
    {
        for (const GroupTraits& group : settings::allGroups()) {
            // What the device was not asked for cannot have been applied.
            const std::int32_t result = results[indexOf(group)].value_or(toResult(ResultCode::notSupported));
            if (result != 0 && concerns(group, given))
                return result;
        }
        return toResult(ResultCode::success);
    }

    const ParameterMap given;
    const std::shared_ptr<Device> device;  // the host may release it before the last reply
    const std::uint64_t closings;          // of the source, when the host gave the values
    const SettingsQueue::Turn turn;
    const std::span<const GroupTraits> groups;
    const Device::ConnectionInfoPtr connection;
    std::uint32_t channelNumber = 0;
    bool answered = false;
    std::vector<Tavro8::error_code> failures;
    std::array<std::optional<std::int32_t>, settings::groupCount> results;
    Tavro8::Utility::AsyncMultiRequest exchanges;
};

Tavro8::GDRV::IVideoSource* VideoSource::create(Device* device, std::uint32_t channel, std::uint32_t stream,
                                                Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                                Tavro8::GDRV::IMediaFrameHandler* frames,
                                                const Tavro8::ParameterMap& parameters, Tavro8::IContract* parent)
{
    Tavro8::Utility::LiveSourceContext context;
    context.frames = frames;
    context.parameters = parameters;
    context.objectName = videoObjectName(channel, stream);
    context.channel = channel;
    context.stream = stream;
    const auto source = std::make_shared<VideoSource>(device, handler, parent, std::move(context));
    device->whenClosing(source, [weak = source->weak_from_this()] {
        if (const auto alive = weak.lock())
            static_cast<VideoSource&>(*alive).onDeviceClosing();
    });
    source->adopt();
    return source.get();
}

VideoSource::VideoSource(Device* device, Tavro8::GDRV::IAsyncDeviceChannelHandler* handler, Tavro8::IContract* parent,
                         Tavro8::Utility::LiveSourceContext sourceContext)
    : RTSPReceiverVideoSource(device, handler, parent, std::move(sourceContext)),
      maxFpsForCodec(ModelParameters::ofChannel(*device->getDescription(), context.channel).texts("maxFpsForCodec")),
      settingsLogger(device->getLogger().get(), sourcePath, context.objectName),
      settingsQueue(device->settingsQueue("pictures of channel " + std::to_string(context.channel)))
{}

VideoSource::~VideoSource() = default;

void VideoSource::Destroy() noexcept
{
    const auto keep = sharedSelf();
    settingsQueue->drop(this);
    Tavro8::guardedVoid(settingsLogger, "Uniview::VideoSource::Destroy",
                        [&] { boost::asio::post(device->service(), [keep] { keep->settingsRun.reset(); }); });
    RTSPReceiverVideoSource::Destroy();
}

std::int32_t VideoSource::ApplySettings(const ParameterMap& changed) noexcept
{
    const auto take = [&] {
        const auto begin = [self = sharedSelf(), of = device->shared_from_this(), changed, since = closings.load()](
                               SettingsQueue::Turn turn) { self->beginSettings(changed, of, since, std::move(turn)); };
        return settingsQueue->take({this, &settingsLogger, applying, begin});
    };
    return Tavro8::guarded(settingsLogger, "Uniview::VideoSource::ApplySettings", toResult(ResultCode::unexpected),
                           take);
}

void VideoSource::beginSettings(const ParameterMap& given, const std::shared_ptr<Device>& of, std::uint64_t since,
                                SettingsQueue::Turn turn)
{
    const std::int32_t result = Tavro8::guarded(settingsLogger, applying, toResult(ResultCode::unexpected), [&] {
        if (wasClosed(*of, since))
            return toResult(ResultCode::invalidState);  // while it waited
        settingsRun = std::make_unique<SettingsRun>(given, of, since, turn);
        applySettings(given);
        return toResult(ResultCode::success);
    });
    turn.reset();
    if (result != 0)
        finishAllSettings(result);
}

void VideoSource::applySettings(const ParameterMap& given)
{
    adjust(given);  // first the stream, so that a new connection picks up what is written now
    SettingsRun& run = *settingsRun;
    run.channelNumber = run.device->channelNumber(context.channel);
    for (const GroupTraits& group : run.groups) {
        run.exchanges.addGetRequest(pathOf(group, run.channelNumber), requestLimit(),
                                    settingsHandler(group, group.readPlace, &VideoSource::onSettingsRead));
    }
    run.exchanges.start([weak = weak_from_this()](std::int32_t) {
        if (const auto alive = weak.lock()) {
            auto& self = static_cast<VideoSource&>(*alive);
            // Apart: without memory for it the host is told the end all the same, and the next one has its turn.
            Tavro8::guardedVoid(self.settingsLogger, applying, [&] { self.settingsRun->reportFailures(); });
            self.finishAllSettings(self.settingsRun->overallResult());
        }
    });
}

bool VideoSource::wasClosed(const Device& of, std::uint64_t since) const
{
    return closings != since || !of.hasBeenConnected();
}

/// Counted first, on the host's thread: what has been read is not written any more, though the end has not begun.
void VideoSource::onDeviceClosing()
{
    ++closings;
    boost::asio::post(device->service(), [self = sharedSelf()] {
        Tavro8::guardedVoid(self->settingsLogger, applying, [&] { self->endClosedSettings(); });
    });
}

/// Not left to the time limits: the settings of the next address would wait for them.
void VideoSource::endClosedSettings()
{
    if (settingsRun == nullptr || settingsRun->closings == closings)
        return;  // begun since
    settingsLogger.error(applying, closedBefore);
    settingsRun->exchanges.stop();
    for (const GroupTraits& group : settingsRun->groups)
        finishSettings(group, toResult(ResultCode::invalidState));
    finishAllSettings(settingsRun->overallResult());
}

/// What will not be written is no reason to interrupt the stream.
bool VideoSource::parametersRequireRTSPClientReconnect(const ParameterMap& changed) const
{
    ParameterMap effective = changed;
    if (!hasStreamSettings(device->GetDeviceKind()) || !settings::canBeWritten(changed, maxFpsForCodec))
        std::erase_if(effective, [this](const auto& entry) { return isHeldByDevice(entry.first); });
    return RTSPReceiverVideoSource::parametersRequireRTSPClientReconnect(effective);
}

/// What goes wrong in the handler of one resource is the failure of that resource alone.
Tavro8::http::CompletionHandler VideoSource::settingsHandler(const GroupTraits& group, const char* place,
                                                             SettingsStep step)
{
    return [self = sharedSelf(), &group, place, step](const Tavro8::error_code& ec, const std::vector<char>& body,
                                                      const Tavro8::http::HttpResponse& response) {
        const auto result = Tavro8::guarded(self->settingsLogger, place, toResult(ResultCode::unexpected), [&] {
            self->settingsRun->noteExchange(ec);
            lapi::Reply reply = lapi::judge(ec, response, body);
            ((*self).*step)(group, reply);
            return toResult(ResultCode::success);
        });
        if (result != 0)
            self->finishSettings(group, result);
    };
}

void VideoSource::onSettingsRead(const GroupTraits& group, lapi::Reply& reply)
{
    if (!reply) {
        logFailure(group.readPlace, reply, group, group.readFailure);
        return finishSettings(group, reply.result);
    }
    const settings::Edit edit = (this->*editors[indexOf(group)])(reply.data, settingsRun->given);
    if (edit.result != 0)
        settingsLogger.error(group.editPlace, edit.message);
    else if (!edit.note.empty())
        settingsLogger.warning(group.editPlace, edit.note);
    if (!edit)
        return finishSettings(group, edit.result);
    if (wasClosed(*settingsRun->device, settingsRun->closings)) {
        settingsLogger.error(group.readPlace, closedBefore);
        return finishSettings(group, toResult(ResultCode::invalidState));
    }
    settingsRun->exchanges.addPutRequest(pathOf(group, settingsRun->channelNumber), lapi::writeJson(reply.data),
                                         requestLimit(),
                                         settingsHandler(group, group.writePlace, &VideoSource::onSettingsWritten));
}

void VideoSource::onSettingsWritten(const GroupTraits& group, lapi::Reply& reply)
{
    if (!reply)
        logFailure(group.writePlace, reply, group, group.writeFailure);
    else if (group.group == Group::stream)
        adjustWritten(settingsRun->given);
    finishSettings(group, reply.result);
}

void VideoSource::logFailure(const char* place, const lapi::Reply& reply, const GroupTraits& group,
                             const char* consequence) const
{
    settingsLogger.error(place, lapi::explain(reply, pathOf(group, settingsRun->channelNumber)));
    settingsLogger.error(place, consequence);
}

void VideoSource::finishSettings(const GroupTraits& group, std::int32_t result)
{
    auto& told = settingsRun->results[indexOf(group)];
    if (told)
        return;  // something went wrong after it was told
    told = result;
    reportSettings(group.name, result);
}

void VideoSource::finishAllSettings(std::int32_t result)
{
    settingsRun.reset();
    reportSettings(everything, result);
}

settings::Edit VideoSource::streamSettings(Json::Value& data, const ParameterMap& given) const
{
    return settings::editStream(data, given, context.stream, maxFpsForCodec);
}

settings::Edit VideoSource::captureModeSettings(Json::Value& data, const ParameterMap& given) const
{
    return settings::editImage(Group::captureMode, data, given);
}

settings::Edit VideoSource::exposureSettings(Json::Value& data, const ParameterMap& given) const
{
    return settings::editImage(Group::exposure, data, given);
}

settings::Edit VideoSource::illuminationSettings(Json::Value& data, const ParameterMap& given) const
{
    return settings::editImage(Group::illumination, data, given);
}

settings::Edit VideoSource::whiteBalanceSettings(Json::Value& data, const ParameterMap& given) const
{
    return settings::editImage(Group::whiteBalance, data, given);
}

settings::Edit VideoSource::defogSettings(Json::Value& data, const ParameterMap& given) const
{
    return settings::editImage(Group::defog, data, given);
}

settings::Edit VideoSource::ldcSettings(Json::Value& data, const ParameterMap& given) const
{
    return settings::editImage(Group::ldc, data, given);
}

settings::Edit VideoSource::imageEnhanceSettings(Json::Value& data, const ParameterMap& given) const
{
    return settings::editImage(Group::imageEnhance, data, given);
}
}  // namespace Uniview
