#include <utility>  // ahead of Asio, which forgets it

#include "ReplayServer.h"

#include "ReplaySession.h"
#include "SocketHandle.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <map>
#include <thread>

namespace simulator
{

using boost::asio::ip::tcp;

struct ReplayServer::State {
    State(const Options& options, const Authenticator::Settings& credentials, const Archive& archive,
          const FaultTable& faults)
        : services{options, archive, faults, board, Authenticator(credentials, randomNonce)},
          work(context.get_executor()),
          thread([this] { context.run(); })
    {}

    ~State()
    {
        boost::asio::post(context, [this] { closeAll(); });
        work.reset();
        thread.join();
    }

    void adopt(ConnectionId connection, SocketHandle handle)
    {
        std::erase_if(sessions, [](const auto& entry) { return entry.second.expired(); });
        auto socket = handle.moveTo(context);
        if (!socket)
            return;
        const auto session = std::make_shared<ReplaySession>(std::move(*socket), services, connection);
        sessions.emplace(connection, session);
        session->start();
    }

    void closeAll()
    {
        for (const auto& [connection, weak] : sessions)
            if (const auto session = weak.lock())
                session->close();
    }

    ReplayBoard board;
    ReplayServices services;
    boost::asio::io_context context{1};
    std::map<ConnectionId, std::weak_ptr<ReplaySession>> sessions;  ///< used on `thread` only
    ConnectionId last = 0;                                          ///< used by the caller only
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work;
    std::thread thread;  ///< the last member: it uses the others
};

ReplayServer::ReplayServer(const Options& options, const Authenticator::Settings& credentials, const Archive& archive,
                           const FaultTable& faults)
    : state(std::make_unique<State>(options, credentials, archive, faults))
{}

ReplayServer::~ReplayServer() = default;

ReplayServer::ConnectionId ReplayServer::serve(tcp::socket socket)
{
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    state->board.countConnection();
    const ConnectionId connection = ++state->last;
    boost::asio::post(state->context,
                      [state = state.get(), connection, handle = SocketHandle(std::move(socket))]() mutable {
                          state->adopt(connection, std::move(handle));
                      });
    return connection;
}

void ReplayServer::close(ConnectionId connection)
{
    boost::asio::post(state->context, [state = state.get(), connection] {
        if (const auto found = state->sessions.find(connection); found != state->sessions.end())
            if (const auto session = found->second.lock())
                session->close();
    });
}

void ReplayServer::closeAll()
{
    boost::asio::post(state->context, [state = state.get()] { state->closeAll(); });
}

Json::Value ReplayServer::replays() const
{
    return state->board.replays();
}

Json::Value ReplayServer::counters() const
{
    return state->board.counters();
}

void ReplayServer::clearCounters()
{
    state->board.clearCounters();
}

}  // namespace simulator
