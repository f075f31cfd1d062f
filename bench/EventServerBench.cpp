// What the event server makes of notifications that devices push: the time from a device's write to its receiver, and
// how many notifications one core takes, with few and with a thousand registered addresses.
//
//     event_server_bench [notifications of a case, 100000]
#include <utility>

#include "ProcessCost.h"
#include "PushLoad.h"

#include <IpUtil/GlobalService.h>
#include <IpUtil/TcpServerEx.h>
#include <boost/range/iterator_range_core.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdio>
#include <exception>

namespace
{
using namespace kelvo::bench;
using Tavro8::TcpServerEx;

/// So many registered devices at one port, which all have the same receiver.
class Registrations final : public TcpServerEx::IClient {
public:
    Registrations(std::size_t deviceCount, Arrivals& allArrivals)
        : count(deviceCount), port(freePort()), arrivals(allArrivals)
    {
        for (std::size_t device = 0; device < count; ++device)
            TcpServerEx::startForClient(port, nullptr, pushingAddress(device), this);
    }
    ~Registrations()
    {
        for (std::size_t device = 0; device < count; ++device)
            TcpServerEx::stopForClient(port, pushingAddress(device));
    }
    Registrations(const Registrations&) = delete;
    Registrations& operator=(const Registrations&) = delete;

    std::uint16_t getPort() const noexcept { return port; }

private:
    void processData(const boost::iterator_range<const char*>& data,
                     const boost::shared_ptr<TcpServerEx::Session>&) override
    {
        arrivals.note(Notification::ageOf(Notification::digitsIn({data.begin(), data.size()})));
    }

    const std::size_t count;
    const std::uint16_t port;
    Arrivals& arrivals;
};
}  // namespace

int main(int argc, char** argv)
try {
    const std::size_t wanted = wantedPushes(argc, argv);
    raiseDescriptorLimit();
    const auto service = Tavro8::Utility::GlobalService::instance();
    printPushHeading();
    for (const PushCase& one : pushCases()) {
        Arrivals arrivals(wanted / one.countDivisor);
        const Registrations registrations(one.plan.registered, arrivals);
        printPushRow(one.name, arrivals, push(one.plan, registrations.getPort(), arrivals));
    }
    return 0;
} catch (const std::exception& e) {
    std::fprintf(stderr, "event_server_bench: %s\n", e.what());
    return 1;
}
