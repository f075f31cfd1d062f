#include "RtspAuthentication.h"

namespace simulator
{

GlibPointer<GstRTSPAuth> makeAuthentication(const Options& options, const std::string& realm)
{
    GlibPointer<GstRTSPAuth> auth(gst_rtsp_auth_new());
    GstRTSPToken* const token = gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, userRole, nullptr);
    gst_rtsp_auth_set_realm(auth.get(), realm.c_str());
    int schemes = 0;
    if (options.authentication != Authentication::basic) {
        schemes |= GST_RTSP_AUTH_DIGEST;
        gst_rtsp_auth_add_digest(auth.get(), options.user.c_str(), options.password.c_str(), token);
    }
    if (options.authentication != Authentication::digest) {
        schemes |= GST_RTSP_AUTH_BASIC;
        const GlibPointer<gchar> basic(gst_rtsp_auth_make_basic(options.user.c_str(), options.password.c_str()));
        gst_rtsp_auth_add_basic(auth.get(), basic.get(), token);
    }
    gst_rtsp_auth_set_supported_methods(auth.get(), static_cast<GstRTSPAuthMethod>(schemes));
    gst_rtsp_token_unref(token);
    return auth;
}

}  // namespace simulator
