#include "HostFixture.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Host
{
namespace
{
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class Recordings : public testing::Test, protected HostFixture {
protected:
    Recordings() { environment["LC_ALL"] = "C"; }

    const ChildProcess& list(const std::vector<std::string>& words, const std::string& device = "recorder")
    {
        return run(commandLine(words, device));
    }

    static std::vector<std::string> commandLine(const std::vector<std::string>& words, const std::string& device)
    {
        std::vector<std::string> all{"--json", "--log-level", "info", "--device",
                                     device,   "--channels",  "2",    "recordings"};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    /// "begin end" of each, in order.
    std::vector<std::string> listed() const
    {
        std::vector<std::string> all;
        for (const Json::Value& event : getEvents())
            if (event["event"] == "recording")
                all.push_back(event["begin"].asString() + ' ' + event["end"].asString());
        return all;
    }
};

TEST_F(Recordings, listsWhatIsRecorded)
{
    list({"--begin", "2026-11-20T13:30:00Z", "--end", "2026-11-20T15:15:00Z"});
    EXPECT_EQ(status, 0) << child->errors();
    EXPECT_THAT(listed(),
                ElementsAre("2026-11-20T13:30:00Z 2026-11-20T13:50:00Z", "2026-11-20T14:00:00Z 2026-11-20T14:50:00Z",
                            "2026-11-20T15:00:00Z 2026-11-20T15:50:00Z"));
    EXPECT_EQ(getEvents()[0]["beginMs"].asUInt64(), 1'795'181'400'000U);
    EXPECT_EQ(getEvents()[0]["endMs"].asUInt64(), 1'795'182'600'000U);
    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["recordings"], 3);
    EXPECT_EQ(summary["recordedSeconds"].asDouble(), (20 + 50 + 15) * 60);
    EXPECT_EQ(summary["seconds"].asDouble(), 105 * 60);
    EXPECT_EQ(summary["channel"], 0);
    EXPECT_EQ(summary["begin"], "2026-11-20T13:30:00Z");
    EXPECT_EQ(summary["endMs"].asUInt64(), 1'795'187'700'000U);
}

TEST_F(Recordings, drawsThemForPeople)
{
    const ChildProcess& host =
        run({"--device", "recorder", "recordings", "--begin", "2026-11-20T13:00:00Z", "--end", "2026-11-20T15:38:00Z"});
    EXPECT_EQ(status, 0) << host.errors();
    EXPECT_EQ(host.output(),
              "Begin                 End                       Length\n"
              "2026-11-20T13:00:00Z  2026-11-20T13:50:00Z       50:00\n"
              "2026-11-20T14:00:00Z  2026-11-20T14:50:00Z       50:00\n"
              "2026-11-20T15:00:00Z  2026-11-20T15:50:00Z       50:00\n"
              "\n"
              "Recorded  2:18:00 of 2:38:00 (87.3 %) in 3 recordings on channel 0 from 2026-11-20T13:00:00Z to "
              "2026-11-20T15:38:00Z\n"
              "#########################.....#########################.....###################\n"
              "|13:00         |13:30         |14:00         |14:30         |15:00         |\n");
    EXPECT_EQ(host.errors(), "");
}

TEST_F(Recordings, showsPartsOfASecondInEveryRowWhenOneHasSome)
{
    const ChildProcess& host = run(
        {"--device", "recorder", "recordings", "--begin", "2026-11-20T13:30:00.250Z", "--end", "2026-11-20T14:30:00Z"});
    EXPECT_THAT(host.output(), StartsWith("Begin                     End                               Length\n"
                                          "2026-11-20T13:30:00.250Z  2026-11-20T13:50:00.000Z       19:59.750\n"
                                          "2026-11-20T14:00:00.000Z  2026-11-20T14:50:00.000Z       50:00.000\n"));
}

TEST_F(Recordings, listsRecordingsWithoutLength)
{
    const ChildProcess& host = run(
        {"--device", "momentary", "recordings", "--begin", "2026-11-20T13:30:00Z", "--end", "2026-11-20T15:30:00Z"});
    EXPECT_EQ(host.output(),
              "Begin                 End                       Length\n"
              "2026-11-20T14:00:00Z  2026-11-20T14:00:00Z       00:00\n"
              "2026-11-20T15:00:00Z  2026-11-20T15:00:00Z       00:00\n"
              "\n"
              "Recorded  00:00 of 2:00:00 (0.0 %) in 2 recordings on channel 0 from 2026-11-20T13:30:00Z to "
              "2026-11-20T15:30:00Z\n"
              "...................-.......................................-...................\n"
              "|13:30             |14:00              |14:30              |15:00\n");
    list({"--begin", "2026-11-20T13:30:00Z", "--end", "2026-11-20T15:30:00Z"}, "momentary");
    EXPECT_EQ(getEvent("summary")["recordings"], 2);
    EXPECT_EQ(getEvent("summary")["recordedSeconds"].asDouble(), 0);
}

TEST_F(Recordings, drawsBlocksWhereTheLocaleHasThem)
{
    environment["LC_ALL"] = "de_DE.utf8";
    const ChildProcess& host =
        run({"--device", "recorder", "recordings", "--begin", "2026-11-20T13:00:00Z", "--end", "2026-11-20T14:00:00Z"});
    EXPECT_THAT(host.output(), HasSubstr("\u2588\u2588\u2586\u00b7\u00b7"));
    environment["LC_ALL"] = "";
    environment["LC_CTYPE"] = "C";
    environment["LANG"] = "en_GB.UTF-8";
    run({"--device", "recorder", "recordings", "--begin", "-1h", "--end", "now"});
    EXPECT_THAT(child->output(), HasSubstr("##")) << "the category decides";
}

TEST_F(Recordings, saysThatNothingIsRecorded)
{
    list({"--begin", "2026-11-01", "--end", "2026-12-01", "--channel", "1"});
    EXPECT_EQ(status, 0);
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(getEvent("summary")["recordings"], 0);
    EXPECT_EQ(getEvent("summary")["recordedSeconds"].asDouble(), 0);
    run({"--device", "recorder", "--channels", "2", "recordings", "--begin", "2026-11-01", "--end", "2026-12-01",
         "--channel", "1"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(child->output(), "Nothing is recorded on channel 1 from 2026-11-01T00:00:00Z to 2026-12-01T00:00:00Z\n");
}

TEST_F(Recordings, listsAHundredThousandForPeople)
{
    run({"--device", "hoarding", "recordings", "--begin", "2026-01-01", "--end", "2026-03-11T10:40:00Z"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(std::count(child->output().begin(), child->output().end(), '\n'), 1 + 100'000 + 4);
    EXPECT_THAT(child->output(), HasSubstr("(66.7 %) in 100000 recordings"));
}

TEST_F(Recordings, listsAHundredThousandForPrograms)
{
    list({"--begin", "2026-01-01", "--end", "2026-03-11T10:40:00Z"}, "hoarding");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(std::count(child->output().begin(), child->output().end(), '\n'), 100'000 + 1);
    EXPECT_THAT(child->output(), HasSubstr("\"recordings\":100000,"));
}

TEST_F(Recordings, stopsWhenItIsInterrupted)
{
    ChildProcess& host = start(commandLine({"--begin", "-2d", "--end", "now"}, "dark"));
    host.awaitErrors("searching channel 0");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    EXPECT_THAT(host.errors(), HasSubstr("destroyed while searching"));
    EXPECT_EQ(host.output(), "");
}

TEST_F(Recordings, searchesNoLongerThanTheUserWaits)
{
    list({"--begin", "-2d", "--end", "now", "--timeout", "1"}, "dark");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(child->errors(), HasSubstr("the search did not end in time; allow more with --timeout\n"));
    EXPECT_THAT(child->errors(), HasSubstr("destroyed while searching"));
}

TEST_F(Recordings, showsNoPartsOfASecondThatNobodyNamed)
{
    // One of them begins in the part of the hour that is recorded, and is cut there.
    for (const char* begin : {"-180m", "-195m"})
        EXPECT_THAT(run({"--device", "recorder", "recordings", "--begin", begin, "--end", "now"}).output(),
                    StartsWith("Begin                 End                       Length\n"));
}

TEST_F(Recordings, saysWhyTheyCannotBeListed)
{
    const struct {
        const char* device;
        const char* channel;
        int code;
        const char* reason;
    } cases[] = {
        {"barred", "0", 514,
         "the recordings of channel 0 cannot be listed: the device does not know the resource "
         "(result 514); it has no archive of this channel\n"},
        {"flaky", "0", 257, "cannot be listed: the connection to the device was lost (result 257)"},
        {"mute", "0", 8, "this device's archive cannot be searched: not supported (result 8)"},
        {"recorder", "2", 7,
         "the recordings of channel 2 cannot be listed: there is no such object (result 7); the "
         "device is taken to have 2 channels, name more with --channels\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.device);
        const ChildProcess& host = list({"--begin", "-2d", "--end", "now", "--channel", c.channel}, c.device);
        EXPECT_EQ(status, 4);
        EXPECT_THAT(host.errors(), HasSubstr(c.reason));
        EXPECT_EQ(getEvent("failure")["code"], c.code);
        EXPECT_TRUE(getEvent("summary").isNull());
    }
}

TEST_F(Recordings, refusesAnIntervalThatIsNoneBeforeAnythingIsConnected)
{
    const struct {
        std::vector<std::string> words;
        const char* reason;
    } cases[] = {
        {{"--end", "now"}, "--begin"},
        {{"--begin", "now"}, "--end"},
        {{"--begin", "yesterday", "--end", "now"}, "\"yesterday\" is no time such as 2026-11-20T14:00:00Z"},
        {{"--begin", "2026-02-29", "--end", "now"}, "\"2026-02-29\" is no time"},
        {{"--begin", "1795183200", "--end", "1795183200"}, "--end must be later than --begin"},
        {{"--begin", "2026-11-20", "--end", "2026-11-19"},
         "--end must be later than --begin (2026-11-20T00:00:00Z to 2026-11-19T00:00:00Z)"},
        {{"--begin", "-2d", "--end", "-3d"}, "--end must be later than --begin"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        const ChildProcess& host = list(c.words, "silent");
        EXPECT_EQ(status, 2);
        EXPECT_THAT(host.errors(), HasSubstr(c.reason));
        EXPECT_EQ(host.output(), "");
    }
}
}  // namespace
}  // namespace Host
