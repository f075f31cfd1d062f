#pragma once

#include "http/RequestText.h"

#include <IpUtil/Http.h>

namespace Tavro8::http
{
/// Begins a request. Any thread; everything else happens on the thread that runs `context`.
CancellationPtr startExchange(boost::asio::io_context& context, ConnectionInfoPtr info, HttpRequest request,
                              CompletionHandler handler);
}  // namespace Tavro8::http
