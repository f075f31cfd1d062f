#pragma once

#include "SettingsDocument.h"
#include "StreamEncoding.h"

#include <functional>
#include <optional>
#include <string>

namespace simulator
{

/// Encoder settings of one channel: "Data" of .../Media/Video/Streams/DetailInfos, in the dialect of the firmware.
class VideoSettings {
public:
    explicit VideoSettings(const Options& options);

    const Json::Value& data() const { return document.data(); }
    StreamEncoding encoding(unsigned stream) const;

    /// Says why a stream cannot be encoded so; nothing when it can.
    using Check = std::function<std::optional<std::string>(unsigned stream, const StreamEncoding& encoding)>;
    /// Takes a body over, of which each stream that changes passes `check`. Returns what is wrong, or nothing; a body
    /// that is refused changes nothing.
    std::optional<std::string> write(const Json::Value& body, const Check& check = {});

    /// Changes a stream's picture without a client.
    void change(unsigned stream, Codec codec, const Size& size);

    Json::Value state() const { return document.state(); }

private:
    StreamEncoding encodingIn(const Json::Value& data, unsigned stream) const;
    std::optional<std::string> judge(const Json::Value& data, const Check& check) const;

    Dialect dialect;
    SettingsDocument document;
};

}  // namespace simulator
