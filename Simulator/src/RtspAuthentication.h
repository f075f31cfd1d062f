#pragma once

#include "Glib.h"
#include "Options.h"

#include <gst/rtsp-server/rtsp-server.h>

#include <string>

namespace simulator
{

/// Who may watch: the role that factories give access to.
inline constexpr const char* userRole = "user";

/// The schemes and the one user that the options name.
GlibPointer<GstRTSPAuth> makeAuthentication(const Options& options, const std::string& realm);

}  // namespace simulator
