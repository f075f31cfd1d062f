#include "JsonText.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <algorithm>
#include <memory>
#include <sstream>

namespace kelvo::test
{

Json::Value parseJson(const std::string& text)
{
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors))
        ADD_FAILURE() << "no JSON: " << errors << '\n' << text;
    return value;
}

std::vector<Json::Value> parseJsonLines(const std::string& text)
{
    std::vector<Json::Value> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty())
            values.push_back(parseJson(line));
    }
    return values;
}

Json::Value lastEvent(const std::vector<Json::Value>& events, const std::string& name)
{
    const auto last = std::find_if(events.rbegin(), events.rend(), [&](const auto& e) { return e["event"] == name; });
    return last == events.rend() ? Json::Value() : *last;
}

}  // namespace kelvo::test
