#pragma once

#include "SettingsEdit.h"
#include "SettingsGroup.h"

#include <Tavro8/ParameterMap.h>
#include <json/value.h>

namespace Uniview::settings
{
/// Whether one of the values is for that resource, which is any but the stream.
bool concernsImage(Group group, const Tavro8::ParameterMap& given);

/// Puts the values that the host has given into the data of a reply. `group` is any but the stream.
Edit editImage(Group group, Json::Value& data, const Tavro8::ParameterMap& given);
}  // namespace Uniview::settings
