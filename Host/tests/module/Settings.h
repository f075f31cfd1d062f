#pragma once

#include "Loop.h"

#include <Tavro8/GDRV/IDeviceChannel.h>
#include <Tavro8/ILogger.h>
#include <Tavro8/ParameterMap.h>
#include <string>
#include <vector>

namespace Sample
{
/// The settings of one source: each that it is given is a line of severity "info" in the log. It tells the handler of
/// each of its resources, and at last of "all", which is 8 when a value is for none of them.
class Settings {
public:
    struct Resource {
        std::string name;
        std::vector<std::string> integers;  ///< the keys it knows
        std::vector<std::string> texts;
    };
    using Resources = std::vector<Resource>;

    struct Manners {
        bool takesThem;    ///< without it nothing is taken: 8
        bool answers;      ///< without it the handler is told nothing
        bool hasExposure;  ///< without it this resource fails with 514
        bool isComplete;   ///< without it the handler is not told of "exposure" and "all"
    };

    static Resources picture();
    static Resources pictureOfRecorder();
    static Resources sound();

    /// `sourceName` stands in the log; handler and logger are the host's and may be null.
    Settings(Loop& deviceLoop, Tavro8::GDRV::IAsyncDeviceChannelHandler* channelHandler, Tavro8::ILogger* hostLogger,
             std::string sourceName, Resources sourceResources, const Manners& sourceManners)
        : loop(deviceLoop),
          handler(channelHandler),
          logger(hostLogger),
          name(std::move(sourceName)),
          resources(std::move(sourceResources)),
          manners(sourceManners)
    {}

    std::int32_t apply(Tavro8::IContract* source, const Tavro8::ParameterMap& parameters) noexcept;
    void end() { loop.forget(this); }  ///< afterwards nothing reaches the handler

private:
    std::int32_t resultOf(const Resource& resource, const Tavro8::ParameterMap& parameters) const;
    void tell(Tavro8::IContract* source, const std::string& resource, std::int32_t result);
    void log(const std::string& message) const;

    Loop& loop;  // the device's, which outlives its sources
    Tavro8::GDRV::IAsyncDeviceChannelHandler* const handler;
    Tavro8::ILogger* const logger;
    const std::string name;
    const Resources resources;
    const Manners manners;
};
}  // namespace Sample
