#include "ServerTestKit.h"

#include <atomic>
#include <thread>

namespace Tavro8::server::testing
{
namespace
{
using ServerConcurrencyTest = ServerTest;

/// Notices being called when it should not be.
class BriefClient final : public TcpServerEx::IClient {
public:
    explicit BriefClient(std::atomic<std::size_t>& calls) : calls(calls) {}
    ~BriefClient() { alive = false; }

    void processData(const boost::iterator_range<const char*>&, const boost::shared_ptr<TcpServerEx::Session>&) override
    {
        ++calls;
        ++unguarded;
        EXPECT_TRUE(alive);
    }

private:
    std::atomic<std::size_t>& calls;
    std::size_t unguarded = 0;  // no atomic: deliveries and the end of the registration order it
    bool alive = true;
};
}  // namespace

/// Four host threads come and go while four devices send; nobody is called after its end, and all messages of the
/// device whose receiver stays arrive.
TEST_F(ServerConcurrencyTest, registrationsComeAndGoWhileDevicesSend)
{
    constexpr int devices = 3;
    constexpr std::size_t steadyMessages = 300;
    RecordingClient steady;
    start(steady, "127.0.0.100");
    std::atomic<std::size_t> calls{0};
    std::atomic<bool> enough{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < devices; ++i) {
        const std::string address = "127.0.0." + std::to_string(10 + i);
        for (int host = 0; host < 2; ++host) {
            threads.emplace_back([&, address] {
                while (!enough) {
                    BriefClient client(calls);
                    TcpServerEx::startForClient(port, &logger, address, &client);
                    std::this_thread::yield();
                    TcpServerEx::stopForClient(port, address);
                    TcpServerEx::stopAllOfClient(&client);  // the other thread may have ended ours
                }
            });
        }
        threads.emplace_back([&, address] {
            while (!enough) {
                Peer device(port, address);
                for (int message = 0; message < 20 && device.trySend(notification("brief")); ++message) {
                }
            }
        });
    }
    Peer device(port, "127.0.0.100");
    for (std::size_t i = 1; i <= steadyMessages; ++i) {
        device.send(notification(std::to_string(i)));
        if (i % 10 == 0)
            steady.waitFor(i);
    }
    EXPECT_EQ(steady.waitFor(steadyMessages).size(), steadyMessages);
    while (calls == 0)
        std::this_thread::yield();
    enough = true;
    for (std::thread& thread : threads)
        thread.join();
    stop("127.0.0.100");
    settle();
}

TEST_F(ServerConcurrencyTest, answersFromAnotherThread)
{
    RecordingClient::Session session;
    RecordingClient client([&](const std::string&, const RecordingClient::Session& present) { session = present; });
    start(client);
    Peer device(port);
    device.send(notification("1"));
    client.waitFor(1);
    settle();
    std::thread answering([&] {
        for (int i = 0; i < 1000; ++i)
            EXPECT_TRUE(session->send("0123456789"));
        session->close();
    });
    EXPECT_EQ(device.readToEnd().size(), 10000U);
    answering.join();
    stop();
}
}  // namespace Tavro8::server::testing
