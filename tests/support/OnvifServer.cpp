#include <cstddef>
#include <fstream>
#include <glib-object.h>
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <iostream>
#include <string>

// onvif-server FILE LAW: a camera made of GStreamer's own ONVIF RTSP server, with a voice and with a way back that
// takes G.711 ("PCMU" or "PCMA"). The RTSP port is the first line of standard output; what comes is written to FILE as
// it is, and each time "heard <bytes>" tells how much has come in all. Ends when standard input does.
namespace
{
struct Listener {
    std::ofstream file;
    std::size_t bytes = 0;
};

void onHeard(GstElement*, GstBuffer* buffer, GstPad*, gpointer data)
{
    auto& listener = *static_cast<Listener*>(data);
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE)
        return;
    listener.file.write(reinterpret_cast<const char*>(map.data), static_cast<std::streamsize>(map.size));
    listener.file.flush();
    listener.bytes += map.size;
    gst_buffer_unmap(buffer, &map);
    std::cout << "heard " << listener.bytes << std::endl;
}

void onMedia(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer listener)
{
    GstElement* const bin = gst_rtsp_media_get_element(media);
    GstElement* const ear = gst_bin_get_by_name(GST_BIN(bin), "ear");
    if (ear != nullptr) {
        g_signal_connect(ear, "handoff", G_CALLBACK(onHeard), listener);
        gst_object_unref(ear);
    }
    gst_object_unref(bin);
}

gboolean onInput(GIOChannel* channel, GIOCondition, gpointer loop)
{
    gchar byte = 0;
    gsize count = 0;
    if (g_io_channel_read_chars(channel, &byte, 1, &count, nullptr) == G_IO_STATUS_NORMAL)
        return TRUE;
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return FALSE;
}

GstRTSPMediaFactory* makeFactory(const std::string& law, Listener& listener)
{
    const bool muLaw = law == "PCMU";
    const std::string type = muLaw ? "0" : "8";
    const std::string back = "( capsfilter caps=\"application/x-rtp, media=audio, payload=" + type +
                             ", clock-rate=8000, encoding-name=" + law + "\" name=depay_backchannel ! " +
                             (muLaw ? "rtppcmudepay" : "rtppcmadepay") +
                             " ! fakesink name=ear signal-handoffs=true sync=false async=false )";
    GstRTSPMediaFactory* const factory = gst_rtsp_onvif_media_factory_new();
    // Where nobody sets up the voice its end is sometimes linked to nothing, which would end the whole; the tee goes
    // on.
    gst_rtsp_media_factory_set_launch(
        factory, "( audiotestsrc is-live=true wave=silence ! audio/x-raw,rate=8000,channels=1 ! tee name=voice "
                 "voice. ! fakesink sync=false async=false voice. ! mulawenc ! rtppcmupay name=pay0 pt=0 )");
    gst_rtsp_onvif_media_factory_set_backchannel_launch(GST_RTSP_ONVIF_MEDIA_FACTORY(factory), back.c_str());
    gst_rtsp_media_factory_set_media_gtype(factory, GST_TYPE_RTSP_ONVIF_MEDIA);
    g_signal_connect(factory, "media-configure", G_CALLBACK(onMedia), &listener);
    return factory;
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: onvif-server FILE PCMU|PCMA\n";
        return 2;
    }
    gst_init(nullptr, nullptr);
    Listener listener;
    listener.file.open(argv[1], std::ios::binary);
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    GstRTSPServer* const server = gst_rtsp_onvif_server_new();
    gst_rtsp_server_set_address(server, "127.0.0.1");
    gst_rtsp_server_set_service(server, "0");
    GstRTSPMountPoints* const mounts = gst_rtsp_server_get_mount_points(server);
    gst_rtsp_mount_points_add_factory(mounts, "/media/video1", makeFactory(argv[2], listener));
    g_object_unref(mounts);
    if (gst_rtsp_server_attach(server, nullptr) == 0) {
        std::cerr << "no port\n";
        return 1;
    }
    std::cout << gst_rtsp_server_get_bound_port(server) << std::endl;
    GIOChannel* const input = g_io_channel_unix_new(0);
    g_io_add_watch(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), onInput, loop);
    g_main_loop_run(loop);
    g_io_channel_unref(input);
    g_object_unref(server);
    g_main_loop_unref(loop);
    return 0;
}
