#include <utility>  // ahead of Asio, which forgets it

#include "RtspPort.h"

#include "MediaServer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <map>

namespace simulator
{

using boost::asio::ip::tcp;
using boost::system::error_code;

struct RtspPort::State : std::enable_shared_from_this<State> {
    State(boost::asio::io_context& ioContext, const FaultTable& faultTable, MediaServer& mediaServer)
        : context(ioContext), faults(faultTable), media(mediaServer)
    {}

    void accept(tcp::socket socket)
    {
        if (faults.find(FaultKind::rtspRefuse))
            return reset(socket);
        if (faults.find(FaultKind::rtspHang))
            return keepSilent(std::move(socket));
        const auto connection = media.serve(std::move(socket));
        if (const auto drop = faults.find(FaultKind::rtspDrop); drop && connection)
            closeLater(*connection, std::chrono::milliseconds(drop->argument));
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

    void closeLater(MediaServer::ConnectionId connection, std::chrono::milliseconds delay)
    {
        const auto timer = std::make_shared<boost::asio::steady_timer>(context, delay);
        timer->async_wait([weak = weak_from_this(), timer, connection](const error_code& error) {
            const auto self = weak.lock();
            if (!error && self)
                self->media.close(connection);
        });
    }

    void dropConnections()
    {
        media.closeAll();
        error_code ignored;
        for (const auto& [key, silent] : silentConnections)
            silent->socket.close(ignored);
    }

    boost::asio::io_context& context;
    const FaultTable& faults;
    MediaServer& media;
    std::map<Silent*, std::shared_ptr<Silent>> silentConnections;
};

RtspPort::RtspPort(boost::asio::io_context& context, const tcp::endpoint& endpoint, const FaultTable& faults,
                   MediaServer& media)
    : state(std::make_shared<State>(context, faults, media)),
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
