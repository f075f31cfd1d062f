#pragma once

#include "SettingsDocument.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace simulator
{

/// What the image settings make of the test picture.
struct PictureLook {
    double brightness = 0;  ///< -1 to 1, what is added
    double contrast = 1;    ///< 0 to 2
    double saturation = 1;  ///< 0 to 2
    bool mirrored = false;  ///< left and right change places
    bool flipped = false;   ///< top and bottom change places
    bool operator==(const PictureLook&) const = default;
};

/// The image resources of one channel, by the end of their path: "Media/VideoInMode", "Image/Enhance" and the like.
class ImageSettings {
public:
    /// Each of them has its document behind ".../Channels/<N>/".
    static std::span<const std::string_view> resources();
    static constexpr std::string_view enhance = "Image/Enhance";

    ImageSettings();

    const Json::Value& data(std::string_view resource) const { return at(resource).data(); }
    /// Returns what is wrong, or nothing; a body that is refused changes nothing.
    std::optional<std::string> write(std::string_view resource, const Json::Value& body);

    PictureLook look() const;

    /// An object with a member for each resource.
    Json::Value state() const;

private:
    const SettingsDocument& at(std::string_view resource) const { return documents.find(resource)->second; }

    std::map<std::string_view, SettingsDocument> documents;
};

}  // namespace simulator
