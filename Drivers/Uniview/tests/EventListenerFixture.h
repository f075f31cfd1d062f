#pragma once

#include "EventFixture.h"

#include "EventListener.h"

#include <boost/range/iterator_range_core.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace Uniview::test
{
/// A listener of a device that is connected to a scripted camera.
class EventListenerFixture : public EventFixture {
protected:
    ~EventListenerFixture() override
    {
        if (listener != nullptr)
            listener->close();
    }

    /// A listener of a connected device.
    void listen(const EventListenerTiming& timing = {})
    {
        makeReady();
        makeListener(timing);
    }
    void makeListener(const EventListenerTiming& timing = {})
    {
        listener = std::make_shared<EventListener>(device.get(), timing);
    }
    /// With a first subscription that the camera has and does not answer. False when it did not come.
    bool subscribeWithoutAnswer(const EventListenerTiming& timing = {})
    {
        makeReady();
        peer.staySilent(post());
        makeListener(timing);
        listener->addSubscriber(&subscriber);
        return peer.waitForRequest(post());
    }
    /// With a healthy subscription.
    void subscribe(const EventListenerTiming& timing = {})
    {
        listen(timing);
        listener->addSubscriber(&subscriber);
        ASSERT_TRUE(waitRenewed());
    }
    void process(const std::string& chunk) { listener->processData({chunk.data(), chunk.data() + chunk.size()}, {}); }
    bool isPending(bool (EventListener::*timer)() const noexcept)
    {
        return onService([&] { return (listener.get()->*timer)(); });
    }

    std::shared_ptr<EventListener> listener;
};
}  // namespace Uniview::test
