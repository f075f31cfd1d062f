#include <utility>

#include "server/EventConnection.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>

namespace Tavro8::server
{
using boost::system::error_code;

EventConnection::EventConnection(tcp::socket connected, std::string remoteAddress, ConnectionOwner& owner,
                                 Sender& sender)
    : sender(sender),
      socket(std::move(connected)),
      owner(owner),
      session(boost::make_shared<EventSession>(std::move(remoteAddress), *this)),
      clientSession(session)
{}

EventConnection::~EventConnection()
{
    session->detach();
}

void EventConnection::start()
{
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    if (error_code failed; socket.non_blocking(true, failed), failed)
        return owner.onEnd(*this, "the system refuses non-blocking reads");
    waitReadable();
}

void EventConnection::close() noexcept
{
    open = false;
    session->detach();
    error_code ignored;
    socket.close(ignored);
}

bool EventConnection::hasUnreadBytes() noexcept
{
    error_code ec;
    return !peerEnded && socket.available(ec) > 0 && !ec;
}

/// A handler that throws (for want of memory) ends its connection and nothing else.
template <typename Body>
void EventConnection::guard(Body&& body) noexcept
try {
    if (open)
        body();
} catch (...) {
    if (open)
        owner.onEnd(*this, "it cannot be served");
}

void EventConnection::waitReadable()
{
    socket.async_wait(tcp::socket::wait_read, [self = shared_from_this()](const error_code& ec) {
        if (!ec)
            self->guard([&] { self->onReadable(); });
    });
}

void EventConnection::onReadable()
{
    const std::span<char> buffer = owner.receiveBuffer();
    error_code ec;
    const std::size_t count = socket.read_some(boost::asio::buffer(buffer.data(), buffer.size()), ec);
    if (ec == boost::asio::error::would_block || ec == boost::asio::error::try_again ||
        ec == boost::asio::error::interrupted)
        return waitReadable();
    if (ec)
        return onPeerEnd();
    owner.onActivity(*this);
    read({buffer.data(), count});
    // One read a turn, so that the other connections have theirs.
    if (open && !session->isClosing())
        waitReadable();
}

void EventConnection::read(std::string_view input)
{
    using Framer = wire::HttpRequestFramer;
    for (;;) {
        const auto result = framer.next(input);
        if (const auto* message = std::get_if<Framer::Message>(&result)) {
            owner.onMessage(*this, message->bytes);
            if (!open || session->isClosing())
                return;
            continue;
        }
        if (const auto* malformed = std::get_if<Framer::Malformed>(&result))
            return owner.onEnd(*this, malformed->rule);
        break;
    }
    const std::size_t before = std::exchange(keptBytes, framer.keptBytes());
    if (before != keptBytes)
        owner.onKeptBytesChanged(*this, static_cast<std::ptrdiff_t>(keptBytes) - static_cast<std::ptrdiff_t>(before));
}

void EventConnection::finish()
{
    if (const auto message = framer.finish(); message && !session->isClosing())
        owner.onMessage(*this, message->bytes);
}

/// A device that has said everything may still read an answer.
void EventConnection::onPeerEnd()
{
    peerEnded = true;
    const bool wasInside = framer.isInsideMessage();
    const auto last = framer.finish();
    if (last && !session->isClosing())
        owner.onMessage(*this, last->bytes);
    if (!open)
        return;
    if (wasInside && !last)
        return owner.onEnd(*this, "it broke off in the middle of a message");
    session->close();
}

void EventConnection::flushLater()
{
    // No connection without owner calls this: the session is detached before the last reference goes.
    boost::asio::post(socket.get_executor(), [weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->guard([&] { self->flush(); });
    });
}

void EventConnection::flush()
{
    if (writing)
        return;
    const bool last = session->takeWaiting(sending);
    if (sending.empty()) {
        if (last)
            owner.onEnd(*this, nullptr);
        return;
    }
    writing = true;
    boost::asio::async_write(
        socket, boost::asio::buffer(sending), [self = shared_from_this()](const error_code& ec, std::size_t) {
            self->writing = false;
            self->guard([&] { ec ? self->owner.onEnd(*self, "an answer cannot be sent") : self->flush(); });
        });
}
}  // namespace Tavro8::server
