#include <utility>

#include "rtsp/StreamContext.h"

#include "rtsp/DatagramBatch.h"

#include <algorithm>

namespace Tavro8::Utility
{
boost::asio::execution_context::id StreamContext::id;

StreamContext::Client::Client(boost::asio::io_context& service) : context(&StreamContext::of(service))
{
    context->add(*this);
}

StreamContext::Client::~Client()
{
    if (context == nullptr)
        return;
    context->stopTicking(*this);
    context->remove(*this);
}

StreamContext::StreamContext(boost::asio::io_context& owner)
    : service(owner), pool(std::make_shared<media::FramePool>()), timer(owner)
{}

StreamContext::~StreamContext() = default;

StreamContext& StreamContext::of(boost::asio::io_context& service)
{
    return boost::asio::use_service<StreamContext>(service);
}

std::span<std::uint8_t> StreamContext::receiveBuffer()
{
    if (buffer == nullptr)
        buffer = std::make_unique_for_overwrite<std::uint8_t[]>(receiveBufferBytes);
    return {buffer.get(), receiveBufferBytes};
}

DatagramBatch& StreamContext::datagramBatch()
{
    if (datagrams == nullptr)
        datagrams = std::make_unique<DatagramBatch>();
    return *datagrams;
}

void StreamContext::startTicking(Client& client)
{
    if (client.ticks)
        return;
    client.ticks = true;
    ticking.push_back(&client);
    if (!armed && !inTick)
        armTimer();
}

void StreamContext::stopTicking(Client& client) noexcept
{
    if (!client.ticks)
        return;
    client.ticks = false;
    const auto found = std::ranges::find(ticking, &client);
    if (inTick) {
        *found = nullptr;  // the loop of `tick` counts on the positions
        return;
    }
    ticking.erase(found);
    if (ticking.empty() && armed && timer) {
        timer->cancel();  // otherwise the context would not run out of work
        armed = false;
    }
}

void StreamContext::armTimer()
{
    armed = true;
    timer->expires_after(timing.tickInterval);
    // A bare `this`: the context destroys its handlers before its services.
    timer->async_wait([this](const boost::system::error_code& ec) {
        if (!ec && armed)
            tick();
    });
}

void StreamContext::tick()
{
    const auto now = std::chrono::steady_clock::now();
    inTick = true;
    for (std::size_t i = 0; i < ticking.size(); ++i) {  // by index: clients may join meanwhile
        if (ticking[i] != nullptr)
            ticking[i]->onTick(now);
    }
    inTick = false;
    std::erase(ticking, nullptr);
    armed = false;
    if (!ticking.empty())
        armTimer();
}

void StreamContext::add(Client& client)
{
    const std::lock_guard lock(mutex);
    clients.push_back(&client);
}

void StreamContext::remove(Client& client) noexcept
{
    const std::lock_guard lock(mutex);
    std::erase(clients, &client);
}

void StreamContext::shutdown()
{
    // One at a time, since letting go of one client may destroy others.
    for (;;) {
        Client* client = nullptr;
        {
            const std::lock_guard lock(mutex);
            if (clients.empty())
                break;
            client = clients.back();
            clients.pop_back();
        }
        client->context = nullptr;
        client->onContextShutdown();
    }
    ticking.clear();
    timer.reset();
}
}  // namespace Tavro8::Utility
