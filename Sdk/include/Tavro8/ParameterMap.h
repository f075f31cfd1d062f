#pragma once

#include <boost/any.hpp>
#include <map>
#include <string>

namespace Tavro8
{
/// Parameters by name. Texts are `std::string`, integers `int`, flags `bool`, fractions `double`; a map of
/// texts is a `TextMap`. A value of another type than the reader expects is refused with the cast error.
using ParameterMap = std::map<std::string, boost::any>;

/// A parameter that is itself a table of texts, such as `maxFpsForCodec`.
using TextMap = std::map<std::string, std::string>;
}  // namespace Tavro8
