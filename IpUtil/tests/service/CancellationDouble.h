#pragma once

#include <IpUtil/Http.h>

/// Blocks like a request that is bound to `source` and never answered.
void waitUntilCancelled(const Tavro8::http::CancellationSource& source);
