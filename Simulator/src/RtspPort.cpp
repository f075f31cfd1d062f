#include <utility>  // ahead of Asio, which forgets it

#include "RtspPort.h"

#include "FirstLine.h"
#include "MediaServer.h"
#include "ReplayRequest.h"
#include "ReplayServer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <functional>
#include <map>

namespace simulator
{

using boost::asio::ip::tcp;
using boost::system::error_code;

struct RtspPort::State : std::enable_shared_from_this<State> {
    State(boost::asio::io_context& ioContext, const FaultTable& faultTable, MediaServer& mediaServer,
          ReplayServer* replayServer)
        : context(ioContext), faults(faultTable), media(mediaServer), replays(replayServer)
    {}

    void accept(tcp::socket socket)
    {
        if (faults.find(FaultKind::rtspRefuse))
            return reset(socket);
        if (faults.find(FaultKind::rtspHang))
            return keepSilent(std::move(socket));
        const unsigned number = ++lastNewcomer;
        const auto handle = [weak = weak_from_this(), number](tcp::socket known, const std::string& line) {
            if (const auto self = weak.lock())
                self->distribute(number, std::move(known), line);
        };
        newcomers.emplace(number, FirstLine::await(std::move(socket), handle, {}));
    }

    void distribute(unsigned newcomer, tcp::socket socket, const std::string& line)
    {
        newcomers.erase(newcomer);
        if (!socket.is_open())
            return;
        if (replays != nullptr && asksForReplay(line))
            serveRecorded(std::move(socket));
        else
            serveLive(std::move(socket));
    }

    void serveLive(tcp::socket socket)
    {
        if (const auto connection = media.serve(std::move(socket)))
            dropLater([this, connection] { media.close(*connection); });
    }

    void serveRecorded(tcp::socket socket)
    {
        const auto connection = replays->serve(std::move(socket));
        dropLater([this, connection] { replays->close(connection); });
    }

    /// When a fault says so.
    void dropLater(std::function<void()> drop)
    {
        if (const auto fault = faults.find(FaultKind::rtspDrop))
            doLater(std::move(drop), std::chrono::milliseconds(fault->argument));
    }

    /// Reads and forgets what the peer says until it gives up.
    void keepSilent(tcp::socket socket)
    {
        const auto silent = std::make_shared<Silent>(std::move(socket));
        silentConnections.insert({silent.get(), silent});
        readOn(silent);
    }

    struct Silent {
        explicit Silent(tcp::socket accepted) : socket(std::move(accepted)) {}
        tcp::socket socket;
        std::array<char, 512> ignored{};
    };

    void readOn(const std::shared_ptr<Silent>& silent)
    {
        silent->socket.async_read_some(boost::asio::buffer(silent->ignored),
                                       [self = shared_from_this(), silent](const error_code& error, std::size_t) {
                                           if (error)
                                               self->silentConnections.erase(silent.get());
                                           else
                                               self->readOn(silent);
                                       });
    }

    void doLater(std::function<void()> action, std::chrono::milliseconds delay)
    {
        const auto timer = std::make_shared<boost::asio::steady_timer>(context, delay);
        timer->async_wait([weak = weak_from_this(), timer, action = std::move(action)](const error_code& error) {
            const auto self = weak.lock();
            if (!error && self)
                action();
        });
    }

    void dropConnections()
    {
        media.closeAll();
        if (replays != nullptr)
            replays->closeAll();
        for (const auto& [number, newcomer] : newcomers)
            newcomer->close();
        error_code ignored;
        for (const auto& [key, silent] : silentConnections)
            silent->socket.close(ignored);
    }

    boost::asio::io_context& context;
    const FaultTable& faults;
    MediaServer& media;
    ReplayServer* const replays;
    std::map<unsigned, std::shared_ptr<FirstLine>> newcomers;  ///< who have not said yet what they want
    unsigned lastNewcomer = 0;
    std::map<Silent*, std::shared_ptr<Silent>> silentConnections;
};

RtspPort::RtspPort(boost::asio::io_context& context, const tcp::endpoint& endpoint, const FaultTable& faults,
                   MediaServer& media, ReplayServer* replays)
    : state(std::make_shared<State>(context, faults, media, replays)),
      listener(context, endpoint, [shared = state](tcp::socket socket) { shared->accept(std::move(socket)); })
{}

RtspPort::~RtspPort()
{
    close();
}

std::uint16_t RtspPort::port() const
{
    return listener.port();
}

void RtspPort::open()
{
    listener.open();
}

void RtspPort::close()
{
    listener.close();
    dropConnections();
}

void RtspPort::dropConnections()
{
    state->dropConnections();
}

}  // namespace simulator
