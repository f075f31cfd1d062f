#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace simulator
{

/// Reads the members of one JSON object that people or peers wrote, and keeps the first thing that is wrong with it.
/// Nothing is read any more once something was wrong.
class JsonMembers {
public:
    /// `value` is not owned and outlives the reader.
    explicit JsonMembers(const Json::Value& value);

    /// Each leaves `into` as it is, and returns false, when there is no such member or it is wrong.
    template <typename Integer>
    bool read(const char* name, std::int64_t least, std::int64_t most, Integer& into)
    {
        std::int64_t number = 0;
        if (!readNumber(name, least, most, number))
            return false;
        into = static_cast<Integer>(number);
        return true;
    }
    bool read(const char* name, std::string& into);
    bool read(const char* name, bool& into);
    /// Takes a number with or without a fraction.
    bool readReal(const char* name, double least, double most, double& into);
    /// Takes seconds with a fraction, 0 to a day.
    bool readSeconds(const char* name, std::int64_t& intoMilliseconds);

    /// The member, whatever it is; null when there is none.
    const Json::Value* find(const char* name);

    void require(const char* name);
    /// Misspelt members must not go unnoticed: those that nothing above has asked for are wrong.
    void refuseOthers();
    void refuse(const std::string& why);

    /// A sentence; empty when all is well.
    const std::string& problem() const { return wrong; }

private:
    bool readNumber(const char* name, std::int64_t least, std::int64_t most, std::int64_t& into);

    const Json::Value& object;
    std::vector<std::string> known;
    std::string wrong;
};

}  // namespace simulator
