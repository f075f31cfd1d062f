// What a host sees of notifications that devices push: the module is loaded as a host loads it, with a device and a
// detector for each camera; the time is that from a camera's write to the detector handler.
//
//     events_bench [notifications of a case, 100000]
#include <utility>

#include "BenchHost.h"
#include "ProcessCost.h"
#include "PushDevices.h"
#include "PushLoad.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
using namespace kelvo::bench;
using namespace Tavro8;
using namespace Tavro8::GDRV;

/// One camera of the host's, with its detector.
class Camera final : public IDetectorHandler {
public:
    Camera(IModule& module, const IDeviceDescription& description, Arrivals& allArrivals) : arrivals(allArrivals)
    {
        if (module.CreateDevice(&description, nullptr, &device) != 0)
            throw std::runtime_error("the module makes no device");
        if (device->CreateDetector(0, {{"detectionType", std::string("crossLineDetectType")}}, this, &detector) != 0) {
            device->Destroy();
            throw std::runtime_error("the module makes no detector");
        }
        detector->Start();
    }
    ~Camera()
    {
        detector->Destroy();
        device->Destroy();
    }
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    IDevice& getDevice() const noexcept { return *device; }

private:
    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<IDetectorHandler, IAsyncDeviceChannelHandler, IContract>(this, name);
    }
    void Started(IContract*) noexcept override {}
    void Stopped(IContract*) noexcept override {}
    void StatisticsUpdated(IContract*, const StreamStatistics&) noexcept override {}
    void SettingsApplied(IContract*, const char*, std::int32_t) noexcept override {}
    void DetectorEvent(IDetector*, const DetectorEventInfo& event) noexcept override
    {
        const auto stamp = event.fields->find(Notification::stampMember);
        const auto* digits = stamp == event.fields->end() ? nullptr : boost::any_cast<std::string>(&stamp->second);
        arrivals.note(digits == nullptr ? 0 : Notification::ageOf(*digits));
    }

    Arrivals& arrivals;
    IDevice* device = nullptr;
    IDetector* detector = nullptr;
};

/// So many cameras, subscribed at each.
class Cameras {
public:
    Cameras(IModule& module, const PushDevices& devices, std::size_t count, Arrivals& arrivals)
        : port(freePort()), description({{"localServerPort", std::to_string(port)}})
    {
        const std::size_t before = devices.getSubscriptions();
        for (std::size_t i = 0; i < count; ++i)
            cameras.push_back(std::make_unique<Camera>(module, description, arrivals));
        for (std::size_t i = 0; i < count; ++i)
            cameras[i]->getDevice().Open((pushingAddress(i) + ':' + std::to_string(devices.getPort())).c_str());
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (devices.getSubscriptions() < before + count) {
            if (std::chrono::steady_clock::now() > deadline)
                throw std::runtime_error("not all cameras were subscribed at in time");
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    std::uint16_t getPort() const noexcept { return port; }

private:
    const std::uint16_t port;
    const CameraDescription description;
    std::vector<std::unique_ptr<Camera>> cameras;
};
}  // namespace

int main(int argc, char** argv)
try {
    const std::size_t wanted = wantedPushes(argc, argv);
    raiseDescriptorLimit();
    const PushDevices devices;  // there until the module has said farewell to all of them
    const HostedModule module(HostedModule::builtPath());
    printPushHeading();
    for (const PushCase& one : pushCases()) {
        Arrivals arrivals(wanted / one.countDivisor);
        const Cameras cameras(*module, devices, one.plan.registered, arrivals);
        printPushRow(one.name, arrivals, push(one.plan, cameras.getPort(), arrivals));
    }
    return 0;
} catch (const std::exception& e) {
    std::fprintf(stderr, "events_bench: %s\n", e.what());
    return 1;
}
