#include "ServerTestKit.h"

#include "AllocationCounter.h"

#include <atomic>

namespace Tavro8::server::testing
{
namespace
{
using ServerAllocationTest = ServerTest;

class CountingClient final : public TcpServerEx::IClient {
public:
    void processData(const boost::iterator_range<const char*>&, const boost::shared_ptr<TcpServerEx::Session>&) override
    {
        allocations = kelvo::test::heapUseOfThisThread().allocations;
        ++received;
        received.notify_one();
    }
    void waitFor(std::size_t count) const
    {
        for (std::size_t now = received; now < count; now = received)
            received.wait(now);
    }

    std::atomic<std::size_t> received{0};
    std::atomic<std::size_t> allocations{0};  ///< of the server's thread, at the last message
};
}  // namespace

TEST_F(ServerAllocationTest, takesNothingFromTheHeapForANotification)
{
    CountingClient client;
    start(client);
    Peer device(port);
    const std::string message = notification(std::string(400, 'x'));
    const auto sendTo = [&](std::size_t count) {
        while (client.received < count) {
            const std::size_t before = client.received;
            // Whole, and with head and body in two parts, as many devices send.
            device.send(message + message.substr(0, 100));
            client.waitFor(before + 1);
            device.send(message.substr(100));
            client.waitFor(before + 2);
        }
    };
    sendTo(100);
    const std::size_t warm = client.allocations;
    sendTo(2100);
    EXPECT_EQ(client.allocations, warm);
    stop();
}
}  // namespace Tavro8::server::testing
