#pragma once

#include "Router.h"

#include <json/value.h>

#include <string>

// Answers that several resources give.
namespace simulator
{

Reply withData(Json::Value data);

/// The device did not like what it was told. Most of its resources say so with HTTP 200 and a non-zero code.
Reply invalidArguments(const std::string& why, unsigned status = 200);

/// Firmware answers a path that names a channel or the like which it does not have as any other unknown path.
Reply unknownPath(const std::string& why);

/// The administration's answer to what it does not understand.
Reply badRequest(const std::string& why);

}  // namespace simulator
