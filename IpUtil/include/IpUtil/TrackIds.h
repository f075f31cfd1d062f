#pragma once

namespace Tavro8::Utility
{
/// The names of the tracks of a recording, the same in every driver.
inline constexpr const char* VIDEO_TRACK_ID = "video";
inline constexpr const char* AUDIO_TRACK_ID = "audio";
}  // namespace Tavro8::Utility
