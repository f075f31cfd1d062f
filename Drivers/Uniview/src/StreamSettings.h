#pragma once

#include "SettingsEdit.h"

#include <Tavro8/ParameterMap.h>
#include <cstdint>
#include <json/value.h>

namespace Uniview::settings
{
/// Whether one of the values is for the stream resource.
bool concernsStream(const Tavro8::ParameterMap& given);

/// Whether the values for the stream resource can be written as far as they themselves tell, whatever the device has.
bool canBeWritten(const Tavro8::ParameterMap& given, const Tavro8::TextMap& maxFpsForCodec);

/// Edits the data of a stream reply so that they hold the one stream of that number, with the values that the host has
/// given. `maxFpsForCodec` caps the frame rate by the name of the codec, with a number or "any"; empty, there is no
/// cap. A frame rate that is left alone because the codec is not among them is noted; given alone, it is refused.
Edit editStream(Json::Value& data, const Tavro8::ParameterMap& given, std::uint32_t stream,
                const Tavro8::TextMap& maxFpsForCodec);
}  // namespace Uniview::settings
