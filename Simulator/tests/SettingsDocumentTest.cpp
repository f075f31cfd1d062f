#include "SettingsDocument.h"

#include "LapiEnvelope.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using Type = SettingRule::Type;

constexpr SettingRule rules[] = {
    {"Level", 1, 9},       {"Switch", 0, 1, Type::flag}, {"Num", 1, 2, Type::count},
    {"Sub.Offset", -5, 5}, {"List[].Mode", 0, 3},
};

constexpr const char* initial =
    R"({"Level": 5, "Switch": 0, "Num": 2, "Sub": {"Offset": 0, "Ratio": 25.4},
        "List": [{"ID": 1, "Mode": 0, "Tag": 9007199254740993}, {"ID": 2, "Mode": 1, "Tag": null}],
        "Vendor": {"Name": "x", "Points": [1, 2.5]}})";

class SettingsDocumentTest : public testing::Test {
protected:
    std::optional<std::string> write(const std::string& body)
    {
        return document.write(parseJson(body).value(), SettingsDocument::Extent::whole);
    }
    std::string lost() const { return compactPrint(document.state()["lostMembers"]); }
    std::string strange() const { return compactPrint(document.state()["strangeMembers"]); }

    SettingsDocument document{parseJson(initial).value(), rules};
};

TEST_F(SettingsDocumentTest, takesItsOwnWordsBackWithoutALoss)
{
    EXPECT_EQ(write(initial), std::nullopt);
    EXPECT_EQ(write(compactPrint(document.data())), std::nullopt) << "with 17 digits, as a plain writer does it";
    EXPECT_EQ(document.data(), parseJson(initial).value());
    EXPECT_EQ(lost(), "[]");
    EXPECT_EQ(strange(), "[]");
    EXPECT_EQ(document.state()["writes"], 2u);
}

TEST_F(SettingsDocumentTest, changesWhatHasARule)
{
    EXPECT_EQ(write(R"({"Level": 9, "Switch": true, "Num": 1, "Sub": {"Offset": -5, "Ratio": 25.4},
                        "List": [{"ID": 2, "Mode": 3, "Tag": null}], "Vendor": {"Name": "x", "Points": [1, 2.5]}})"),
              std::nullopt);
    const Json::Value& data = document.data();
    EXPECT_EQ(data["Level"], 9);
    EXPECT_EQ(data["Switch"], true) << "the type is the client's choice";
    EXPECT_EQ(data["Sub"]["Offset"], -5);
    EXPECT_EQ(data["List"][0]["Mode"], 0);
    EXPECT_EQ(data["List"][1]["Mode"], 3);
    EXPECT_EQ(data["Num"], 2) << "how much a body holds is no setting";
    EXPECT_EQ(lost(), "[]") << "an entry that was left out is not lost";
}

TEST_F(SettingsDocumentTest, noticesMembersThatComeBackMissingOrAltered)
{
    const struct {
        const char* body;
        const char* lost;
    } cases[] = {
        {R"("Sub": {"Offset": 0}, "Vendor": {"Name": "x", "Points": [1, 2.5]})", "Sub.Ratio"},
        {R"("Sub": {"Offset": 0, "Ratio": 25}, "Vendor": {"Name": "x", "Points": [1, 2.5]})", "Sub.Ratio"},
        {R"("Sub": {"Offset": 0, "Ratio": "25.4"}, "Vendor": {"Name": "x", "Points": [1, 2.5]})", "Sub.Ratio"},
        {R"("Sub": {"Offset": 0, "Ratio": 25.4}, "Vendor": {"Name": "y", "Points": [1, 2.5]})", "Vendor.Name"},
        {R"("Sub": {"Offset": 0, "Ratio": 25.4}, "Vendor": {"Name": "x", "Points": [1, 2]})", "Vendor.Points"},
        {R"("Sub": {"Offset": 0, "Ratio": 25.4})", "Vendor"},
        {R"("Sub": {"Ratio": 25.4}, "Vendor": {"Name": "x", "Points": [1, 2.5]})", "Sub.Offset"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        document = SettingsDocument(parseJson(initial).value(), rules);
        EXPECT_EQ(write(R"({"Level": 5, "Switch": 0, "Num": 2, "List": [], )" + std::string(c.body) + "}"),
                  std::nullopt);
        EXPECT_EQ(lost(), std::string("[\"") + c.lost + "\"]");
        EXPECT_EQ(document.data(), parseJson(initial).value()) << "what is the device's own stays";
    }
}

TEST_F(SettingsDocumentTest, noticesWhatAPassageThroughFloatingPointDoesToALargeNumber)
{
    for (const char* tag : {"9007199254740992", "9007199254740993.0", "9.007199254740993e15", "\"9007199254740993\""}) {
        SCOPED_TRACE(tag);
        document = SettingsDocument(parseJson(initial).value(), rules);
        EXPECT_EQ(write(std::string(R"({"Level": 5, "Switch": 0, "Num": 1, "Sub": {"Offset": 0, "Ratio": 25.4},
                        "List": [{"ID": 1, "Mode": 0, "Tag": )") +
                        tag + R"(}], "Vendor": {"Name": "x", "Points": [1, 2.5]}})"),
                  std::nullopt);
        EXPECT_EQ(lost(), R"(["List[1].Tag"])");
    }
}

TEST_F(SettingsDocumentTest, noticesMembersThatItNeverHad)
{
    Json::Value body = document.data();
    body["Grade"] = 3;
    body["Sub"]["Mode"] = 1;
    EXPECT_EQ(document.write(body), std::nullopt);
    EXPECT_EQ(strange(), R"(["Grade","Sub.Mode"])");
    EXPECT_FALSE(document.data().isMember("Grade"));
}

TEST_F(SettingsDocumentTest, takesAPartWhereThatIsMeant)
{
    EXPECT_EQ(document.write(parseJson(R"({"Level": 1})").value(), SettingsDocument::Extent::part), std::nullopt);
    EXPECT_EQ(document.data()["Level"], 1);
    EXPECT_EQ(lost(), "[]");
}

TEST_F(SettingsDocumentTest, refusesWrongValuesAndStaysAsItWas)
{
    for (const char* body : {"[]",
                             "3",
                             "null",
                             R"("text")",
                             R"({"Level": 0})",
                             R"({"Level": 10})",
                             R"({"Level": "5"})",
                             R"({"Level": 5.5})",
                             R"({"Level": 5.0})",
                             R"({"Level": null})",
                             R"({"Level": true})",
                             R"({"Level": 18446744073709551615})",
                             R"({"Switch": 2})",
                             R"({"Switch": "on"})",
                             R"({"Num": 3})",
                             R"({"Level": 1, "Sub": {"Offset": 6}})",
                             R"({"Sub": 3})",
                             R"({"List": {}})",
                             R"({"List": [{"ID": 3, "Mode": 0}]})",
                             R"({"List": [{"Mode": 0}]})",
                             R"({"List": [7]})",
                             R"({"List": [{"ID": 1, "Mode": 4}]})"}) {
        SCOPED_TRACE(body);
        EXPECT_TRUE(write(body));
        EXPECT_EQ(document.data(), parseJson(initial).value());
    }
    EXPECT_EQ(document.state()["writes"], 0u);
    EXPECT_EQ(document.state()["refusals"], 22u);
    EXPECT_EQ(lost(), "[]") << "a body that is refused is judged no further";
}

TEST_F(SettingsDocumentTest, asksTheCheckLast)
{
    const auto refuse = [](const Json::Value& data) {
        EXPECT_EQ(data["Level"], 7);
        return std::optional<std::string>("no");
    };
    Json::Value body = document.data();
    body["Level"] = 7;
    EXPECT_EQ(document.write(body, SettingsDocument::Extent::whole, refuse), "no");
    EXPECT_EQ(document.data()["Level"], 5);
}

}  // namespace
}  // namespace simulator
