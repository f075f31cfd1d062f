#include "MediaPipeline.h"

#include "Glib.h"

#include <gst/gst.h>

#include <sstream>
#include <string_view>

namespace simulator
{
namespace
{

/// Key frames are asked for one by one, since the encoders cannot change their distance while they run.
constexpr unsigned longestKeyFrameInterval = 1'000'000;

/// One slice a frame and a single thread: as cheap as it gets, and how cameras encode.
std::string encoderLaunch(const StreamEncoding& encoding)
{
    std::ostringstream out;
    out.imbue(std::locale::classic());
    switch (encoding.codec) {
    case Codec::h264:
        out << "x264enc name=encoder tune=zerolatency speed-preset=ultrafast threads=1 bitrate=" << encoding.bitrateKbit
            << " key-int-max=" << longestKeyFrameInterval << " ! video/x-h264,profile=main";
        break;
    case Codec::h265:
        out << "x265enc name=encoder tune=zerolatency speed-preset=ultrafast "
               "option-string=\"pools=none:frame-threads=1:log-level=error\" bitrate="
            << encoding.bitrateKbit << " key-int-max=" << longestKeyFrameInterval << " ! video/x-h265,profile=main";
        break;
    case Codec::mjpeg:  // each picture takes what it takes
        out << "jpegenc name=encoder quality=70";
        break;
    }
    return out.str();
}

/// Parameter sets go in front of each key frame, as devices send them.
std::string videoPayloader(Codec codec)
{
    switch (codec) {
    case Codec::h264:
        return "h264parse ! rtph264pay name=pay0 pt=96 config-interval=-1";
    case Codec::h265:
        return "h265parse ! rtph265pay name=pay0 pt=96 config-interval=-1";
    case Codec::mjpeg:
        return "rtpjpegpay name=pay0 pt=26";
    }
    return {};
}

/// Packets of 40 ms, in the middle of what devices send.
constexpr const char* g711Payloader = "rtppcmupay name=pay1 pt=0 min-ptime=40000000 max-ptime=40000000";

std::string toneLaunch(const PictureSettings& settings, bool isLive)
{
    const bool aac = settings.audioCodec == AudioCodec::aac;
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << " audiotestsrc is-live=" << (isLive ? "true" : "false")
        << " wave=sine volume=0.3 samplesperbuffer=" << (aac ? 1024 : 320) << " freq=" << settings.toneHertz
        << " ! audio/x-raw,format=S16LE,channels=1,rate=";
    if (aac)
        out << "16000 ! volume name=microphone ! voaacenc bitrate=32000 ! aacparse ! rtpmp4gpay name=pay1 pt=97";
    else
        out << "8000 ! volume name=microphone ! mulawenc ! " << g711Payloader;
    return out.str();
}

struct NeededElement {
    const char* name;
    const char* package;
};

/// A sentence when the element is missing.
std::string lack(const NeededElement& element)
{
    const GlibPointer<GstElementFactory> factory(gst_element_factory_find(element.name));
    if (factory)
        return {};
    return std::string("The GStreamer element '") + element.name + "' is missing; on Debian it is in the package " +
           element.package + ".";
}

}  // namespace

unsigned toneOf(unsigned channel)
{
    return 440 + 110 * (channel % 8);
}

std::string pictureCaps(const StreamEncoding& encoding)
{
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << "video/x-raw,format=I420,width=" << encoding.size.width << ",height=" << encoding.size.height
        << ",framerate=" << encoding.framesPerSecond << "/1";
    return out.str();
}

std::string testPictureLaunch(const PictureSettings& settings)
{
    constexpr const char* font = " shaded-background=true font-desc=\"Monospace 18\"";
    std::ostringstream out;
    out.imbue(std::locale::classic());
    // The bars alone look the same upside down; an F does not. What stands behind the mirror can always be read.
    out << "( videotestsrc is-live=true pattern=smpte100 horizontal-speed=2 ! capsfilter name=picture caps=\""
        << pictureCaps(settings.encoding) << "\" ! textoverlay text=F halignment=position xpos=0.2 valignment=position"
        << " ypos=0.45" << font << " ! videobalance name=balance ! videoflip name=mirror ! textoverlay name=caption"
        << " line-alignment=left valignment=top halignment=left text=\"" << settings.title << '"' << font
        << " ! clockoverlay valignment=top halignment=right time-format=\"%Y-%m-%d %H:%M:%S\"" << font
        << " ! timeoverlay valignment=bottom halignment=left" << font << " ! " << encoderLaunch(settings.encoding)
        << " ! " << videoPayloader(settings.encoding.codec);
    if (settings.audio)
        out << toneLaunch(settings, true);
    out << " )";
    return out.str();
}

std::string replayLaunch(const PictureSettings& settings, bool pictures, bool sound)
{
    // A sink that is full makes its source wait.
    constexpr const char* sink = " ! appsink sync=false enable-last-sample=false max-buffers=100 name=sink";
    std::ostringstream out;
    out.imbue(std::locale::classic());
    if (pictures)
        out << "videotestsrc pattern=smpte100 horizontal-speed=2 ! capsfilter name=picture caps=\""
            << pictureCaps(settings.encoding) << "\" ! textoverlay name=caption shaded-background=true"
            << " line-alignment=center valignment=center halignment=center font-desc=\"Monospace Bold 36\" ! "
            << encoderLaunch(settings.encoding) << " ! " << videoPayloader(settings.encoding.codec) << sink << '0';
    if (sound)
        out << toneLaunch(settings, false) << sink << '1';
    return out.str();
}

std::string fileLaunch(Codec codec, bool audio)
{
    // The sources are live, so that the server treats the file like a camera; clocksync gives them the pace.
    const std::string source = " is-live=true format=time block=false ! clocksync ! ";
    return "( appsrc name=video" + source + videoPayloader(codec) +
           (audio ? " appsrc name=audio" + source + "mulawdec ! volume name=microphone ! mulawenc ! " + g711Payloader
                  : "") +
           " )";
}

std::vector<std::string> missingElements(const Options& options)
{
    std::vector<NeededElement> needed{
        {"rtpbin", "gstreamer1.0-plugins-good"},     {"udpsink", "gstreamer1.0-plugins-good"},
        {"rtph264pay", "gstreamer1.0-plugins-good"}, {"appsink", "gstreamer1.0-plugins-base"},
        {"appsrc", "gstreamer1.0-plugins-base"},     {"h264parse", "gstreamer1.0-plugins-bad"},
    };
    const bool aac = options.audioCodec == AudioCodec::aac && options.mediaFile.empty();
    if (options.audio && aac)
        needed.insert(needed.end(), {{"volume", "gstreamer1.0-plugins-base"},
                                     {"voaacenc", "gstreamer1.0-plugins-bad"},
                                     {"aacparse", "gstreamer1.0-plugins-good"},
                                     {"rtpmp4gpay", "gstreamer1.0-plugins-good"}});
    else if (options.audio)
        needed.insert(needed.end(), {{"mulawenc", "gstreamer1.0-plugins-good"},
                                     {"mulawdec", "gstreamer1.0-plugins-good"},
                                     {"volume", "gstreamer1.0-plugins-base"},
                                     {"rtppcmupay", "gstreamer1.0-plugins-good"}});
    if (!options.mediaFile.empty()) {
        needed.insert(needed.end(), {{"parsebin", "gstreamer1.0-plugins-base"},
                                     {"clocksync", "libgstreamer1.0-0"},
                                     {"audioresample", "gstreamer1.0-plugins-base"}});
    } else {
        needed.insert(needed.end(), {{"videotestsrc", "gstreamer1.0-plugins-base"},
                                     {"audiotestsrc", "gstreamer1.0-plugins-base"},
                                     {"textoverlay", "gstreamer1.0-x"},
                                     {"videobalance", "gstreamer1.0-plugins-good"},
                                     {"videoflip", "gstreamer1.0-plugins-good"}});
    }

    std::vector<std::string> missing;
    const auto collect = [&missing](const std::string& sentence) {
        if (!sentence.empty())
            missing.push_back(sentence);
    };
    for (const NeededElement& element : needed)
        collect(lack(element));
    if (options.mediaFile.empty())
        collect(missingEncoder(options.codec));
    return missing;
}

std::string missingEncoder(Codec codec)
{
    switch (codec) {
    case Codec::h264:
        return lack({"x264enc", "gstreamer1.0-plugins-ugly"});
    case Codec::h265:
        return lack({"x265enc", "gstreamer1.0-plugins-bad"});
    case Codec::mjpeg:  // comes with the payloader
        return lack({"jpegenc", "gstreamer1.0-plugins-good"});
    }
    return {};
}

std::string livePath(Kind kind, unsigned channel, unsigned stream)
{
    std::ostringstream out;
    out.imbue(std::locale::classic());
    switch (kind) {
    case Kind::recorder:
        out << "/unicast/c" << channel + 1 << "/s" << stream << "/live";
        break;
    case Kind::multichannel:
        out << "/media" << channel + 1 << "/video" << stream + 1;
        break;
    case Kind::camera:
        out << "/media/video" << stream + 1;
        break;
    }
    return out.str();
}

std::string talkBackPath(unsigned channel)
{
    return livePath(Kind::camera, 0, channel);
}

}  // namespace simulator
