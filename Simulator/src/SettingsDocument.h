#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>

namespace simulator
{

/// A member that clients may change.
struct SettingRule {
    enum class Type {
        number,  ///< a whole number
        flag,    ///< the same, or true and false: firmware takes either for a switch
        count,   ///< a whole number that tells how much the body holds; it is read and not kept
    };
    /// Member names from the top, joined by dots; "[]" behind the name of a list stands for each of its entries.
    const char* path;
    std::int64_t least;
    std::int64_t most;
    Type type = Type::number;
};

/// The "Data" of a resource that clients read, edit and write back whole. Members with a rule change; the others are
/// the device's own, and a client that does not give them back as it got them is found out. Lists are arrays of objects
/// with an "ID", of which a body may hold some entries only. One thread.
class SettingsDocument {
public:
    /// `rules` are not owned and outlive the document.
    SettingsDocument(Json::Value initial, std::span<const SettingRule> rules);

    const Json::Value& data() const { return document; }

    /// Says of the document as it would become why it may not; nothing when it may.
    using Check = std::function<std::optional<std::string>(const Json::Value&)>;
    /// A body that is no copy of the document is one that was never meant to be whole.
    enum class Extent { whole, part };
    /// Takes over what clients may change. Returns what is wrong, or nothing; a body that is refused changes nothing.
    std::optional<std::string> write(const Json::Value& body, Extent extent = Extent::whole, const Check& check = {});

    /// For changes that the device makes without a client.
    Json::Value& own() { return document; }

    /// {"data", "writes", "refusals", "lostMembers", "strangeMembers"}: how often it was written and refused, members
    /// that came back missing, or altered although no client may change them, and members that it never had. An entry
    /// of a list is named by its "ID": "VideoStreamInfos[1].VideoEncodeInfo.QPFactor".
    Json::Value state() const;

private:
    Json::Value document;
    std::span<const SettingRule> rules;
    unsigned writes = 0;
    unsigned refusals = 0;
    std::set<std::string> lost;
    std::set<std::string> strange;
};

}  // namespace simulator
