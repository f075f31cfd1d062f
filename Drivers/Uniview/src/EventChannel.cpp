#include "EventChannel.h"

#include "Device.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

namespace Uniview
{
using Tavro8::guardedVoid;

EventChannel::EventChannel(const Parts& parts, const std::string& objectName, std::function<void()> forget)
    : parts(parts),
      forget(std::move(forget)),
      lifetime(parts.device->getLifetimeToken()),
      deviceLogger(parts.device->getLogger()),
      collapser(deviceLogger.get()),
      logger(deviceLogger.get(), parts.sourcePath, objectName),
      folding(&collapser, parts.sourcePath, objectName)
{}

void EventChannel::start(const std::shared_ptr<void>& object) noexcept
{
    guardedVoid(logger, parts.startName, [&] {
        logger.info(parts.startName, "Starting...");
        boost::asio::post(parts.device->service(), [channel = std::shared_ptr<EventChannel>(object, this)] {
            guardedVoid(channel->logger, channel->parts.startName, [&] { channel->beginListening(); });
        });
    });
}

void EventChannel::beginListening()
{
    if (isDestroyed())
        return;  // the device may be gone
    const bool begins = !listening;
    if (begins) {
        if (forget)
            forget();
        listening = true;  // first, so that a registration that fails half-way is ended like any other
        parts.device->addSubscriber(parts.subscriber);
    }
    logger.info(parts.startName, "Started.");
    if (begins && parts.handler != nullptr)
        tell([this] { parts.handler->Started(parts.contract); });
}

void EventChannel::stop(const std::shared_ptr<void>& object) noexcept
{
    guardedVoid(logger, parts.stopName, [&] {
        logger.info(parts.stopName, "Stopping...");
        boost::asio::post(parts.device->service(), [channel = std::shared_ptr<EventChannel>(object, this)] {
            guardedVoid(channel->logger, channel->parts.stopName, [&] { channel->endListening(); });
        });
    });
}

void EventChannel::endListening()
{
    if (isDestroyed())
        return;
    const bool ends = std::exchange(listening, false);
    if (ends)
        parts.device->removeSubscriber(parts.subscriber);
    logger.info(parts.stopName, "Stopped.");
    if (ends && parts.handler != nullptr)
        tell([this] { parts.handler->Stopped(parts.contract); });
}

void EventChannel::destroy() noexcept
{
    const auto object = self;  // lives until this call ends
    guardedVoid(logger, parts.destroyName, [&] {
        logger.info(parts.destroyName, "Destroy");
        gate.close();
        // Behind what was posted before. From here on the host may destroy the device, too.
        boost::asio::post(parts.device->service(), [channel = std::shared_ptr<EventChannel>(object, this),
                                                    device = parts.device->shared_from_this()] {
            if (std::exchange(channel->listening, false))
                device->removeSubscriber(channel->parts.subscriber);
        });
        self.reset();  // without memory for the above the object stays for ever, since the device still knows it
    });
}
}  // namespace Uniview
