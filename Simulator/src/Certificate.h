#pragma once

#include <boost/asio/ssl/context.hpp>

#include <string>

namespace simulator
{

/// A TLS server context with a key and a self-signed certificate made for this run, valid for `host` (a name or an
/// address). Throws std::runtime_error when OpenSSL cannot.
boost::asio::ssl::context selfSignedContext(const std::string& host);

}  // namespace simulator
