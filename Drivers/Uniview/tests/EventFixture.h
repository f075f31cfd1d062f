#pragma once

#include <utility>

#include "DeviceFixture.h"
#include "EventSubscriber.h"
#include "PushPeer.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <functional>
#include <future>
#include <json/value.h>
#include <json/writer.h>
#include <string>
#include <vector>

// What the tests of events share: a device that can be subscribed to, and somebody who hears of its events.
namespace Uniview::test
{
inline const std::string subscriptionPath = "/LAPI/V1.0/System/Event/Subscription";

inline std::string replyWithData(const std::string& data)
{
    return "{\"Response\":{\"ResponseURL\":\"/\",\"ResponseCode\":0,\"Data\":" + data + "}}";
}

inline std::string alarm(const std::string& type)
{
    return "{\"Reference\":\"192.0.2.10:80/Subscribers/178\",\"AlarmInfo\":{\"AlarmType\":\"" + type + "\"}}";
}

/// Keeps the types of the events that it is offered. Any thread.
class RecordingSubscriber final : public IEventSubscriber, private kelvo::test::Observations {
public:
    using OnEvent = std::function<void(const std::string& type)>;

    explicit RecordingSubscriber(bool claims = true, OnEvent onEvent = {}) : claims(claims), onEvent(std::move(onEvent))
    {}

    bool handleTriggerInfo(const Json::Value& alarmInfo) override
    {
        const std::string type = alarmInfo.isObject() ? alarmInfo["AlarmType"].asString() : describe(alarmInfo);
        change([&] { events.push_back(type); });
        if (onEvent)
            onEvent(type);
        return claims;
    }

    std::vector<std::string> seen() const { return read(events); }
    bool waitFor(std::size_t count)
    {
        return wait([&] { return events.size() >= count; });
    }

private:
    static std::string describe(const Json::Value& value)
    {
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        return Json::writeString(writer, value);
    }

    const bool claims;
    const OnEvent onEvent;
    std::vector<std::string> events;  // only within change, wait and read
};

class EventFixture : public DeviceFixture {
protected:
    /// The device goes before those that hear of its events.
    ~EventFixture() override
    {
        if (device != nullptr)
            std::exchange(device, nullptr)->Destroy();
    }

    /// A connected device that accepts the subscription "5" and its renewal, and uses a port of its own here.
    void makeReady()
    {
        makeUnconnected();
        connect();
    }
    void makeUnconnected()
    {
        port = kelvo::test::freePort();
        make(1, {{"localServerPort", int{port}}});
        accept(peer);
    }
    static void accept(kelvo::test::ScriptedHttpPeer& camera)
    {
        camera.answer("POST " + subscriptionPath, 200, replyWithData("{\"ID\":\"5\"}"));
        camera.answer("PUT " + subscriptionPath + "/5", 200, replyWithData("{}"));
        camera.answer("DELETE " + subscriptionPath + "/5", 200, replyWithData("{}"));
    }

    /// Answers what the peer has been silent to so far, and from now on.
    void release(const std::string& request, unsigned status, const std::string& body)
    {
        peer.answer(request, status, body);
        peer.breakSilence(status, body);
    }

    static std::string post() { return "POST " + subscriptionPath; }
    static std::string put(const std::string& id) { return "PUT " + subscriptionPath + '/' + id; }
    static std::string cancel(const std::string& id) { return "DELETE " + subscriptionPath + '/' + id; }

    /// The requests that concern the subscription.
    std::vector<std::string> exchanges() const
    {
        auto all = peer.requests();
        std::erase_if(all,
                      [](const std::string& request) { return request.find("Subscription") == std::string::npos; });
        return all;
    }
    /// All bytes of the first of them that begins so.
    std::string bytesOf(const std::string& request) const
    {
        const auto all = peer.wholeRequests();
        const auto found =
            std::ranges::find_if(all, [&](const std::string& bytes) { return bytes.starts_with(request + ' '); });
        return found == all.end() ? std::string() : *found;
    }
    bool waitRenewed(std::size_t times = 1)
    {
        return logger.waitFor("Renew subscription completed successfully. Duration is 60", times);
    }

    /// What `question` finds on the device's I/O thread.
    template <typename Question>
    auto onService(Question question)
    {
        std::promise<decltype(question())> answer;
        boost::asio::post(device->service(), [&] { answer.set_value(question()); });
        return answer.get_future().get();
    }
    /// What the threads of the service had to do is done.
    void settle() { service->barrier(); }

    bool isLineOf(const std::string& text, Tavro8::LogSeverity severity) const
    {
        const auto line = logger.find(text);
        return line.severity == severity && line.message.find("Metadata: " + text) != std::string::npos &&
               line.file == "Drivers/Uniview/src/EventSubscriber";
    }

    std::uint16_t port = 0;
    RecordingSubscriber subscriber;
    RecordingSubscriber second;
};
}  // namespace Uniview::test
