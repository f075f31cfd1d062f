#include <utility>

#include "server/EventServer.h"

#include <IpUtil/TcpServerEx.h>

namespace Tavro8
{
namespace
{
constexpr const char* sourcePath = "IpUtil/src/server/TcpServerEx";

server::EventServer& serverOf(Utility::GlobalService& service)
{
    return boost::asio::use_service<server::EventServer>(service.getServerContext());
}

/// Nothing that ends a registration may fail. What the server gives back is released when it has been left, which may
/// end it.
template <typename Stop>
void stopSafely(Stop&& stop) noexcept
try {
    const auto service = Utility::GlobalService::instance();
    const auto released = stop(serverOf(*service));
} catch (...) {  // neither memory nor a thread: then there is no server that could be stopped
}
}  // namespace

TcpServerEx::Session::~Session() = default;

void TcpServerEx::IClient::onConnectionClose(const boost::shared_ptr<Session>&) {}

void TcpServerEx::startForClient(std::uint16_t port, ILogger* logger, const std::string& clientIp, IClient* client)
{
    constexpr const char* operation = "Tavro8::TcpServerEx::startForClient";
    const LoggerHelper log(logger, sourcePath);
    const auto address = server::ClientAddress::parse(clientIp);
    if (port == 0)
        return log.error(operation, "Port 0 cannot be listened on");
    if (!address)
        return log.error(operation, "'", clientIp, "' is no IP address; nothing will be received from it");
    if (client == nullptr)
        return log.error(operation, "Nobody is to receive what ", clientIp, " sends");
    guardedVoid(log, operation, [&] {
        auto service = Utility::GlobalService::instance();
        auto registration = std::make_shared<server::Registration>();
        registration->client = client;
        registration->logger = logger;
        registration->service = service;
        serverOf(*service).start(port, *address, std::move(registration));
    });
}

void TcpServerEx::stopForClient(std::uint16_t port, const std::string& clientIp) noexcept
{
    stopSafely([&](server::EventServer& server) {
        const auto address = server::ClientAddress::parse(clientIp);
        return port != 0 && address ? server.stop(port, *address) : server::EventServer::Released{};
    });
}

void TcpServerEx::stopAllOfClient(const IClient* client) noexcept
{
    stopSafely([&](server::EventServer& server) { return server.stopAllOf(client); });
}
}  // namespace Tavro8
