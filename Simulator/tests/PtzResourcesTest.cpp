#include "PtzResources.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using std::chrono::milliseconds;

/// The resources without a socket, with a clock of the test's own.
class PtzResourcesTest : public testing::Test {
protected:
    explicit PtzResourcesTest(Kind kind = Kind::camera) : device(optionsFor(kind)), heads(2, [this] { return now; })
    {
        addPtzResources(router, device, heads);
    }

    static Options optionsFor(Kind kind)
    {
        Options options;
        options.kind = kind;
        options.channels = kind == Kind::camera ? 1 : 2;
        return options;
    }

    /// The answer to a request for ".../PTZ/" + `resource` of the first channel.
    Reply ask(const std::string& method, const std::string& resource, const std::string& body = {})
    {
        const std::string channel = device.kind() == Kind::camera ? "0" : "1";
        return askPath(method, "/LAPI/V1.0/Channels/" + channel + "/PTZ/" + resource, body);
    }

    Reply askPath(const std::string& method, const std::string& path, const std::string& body = {})
    {
        auto match = router.find(method, path);
        if (match.handler == nullptr) {
            ADD_FAILURE() << method << ' ' << path;
            return {};
        }
        Call call;
        call.method = method;
        call.path = path;
        call.captures = match.captures;
        call.body = body;
        return (*match.handler)(call);
    }

    Json::Value head(unsigned channel = 0) const { return heads.state()[channel]; }

    PtzTime now{std::chrono::hours(1)};
    DeviceState device;
    PtzHeads heads;
    Router router;
};

class PtzResourcesOfRecorder : public PtzResourcesTest {
protected:
    PtzResourcesOfRecorder() : PtzResourcesTest(Kind::recorder) {}
};

constexpr const char* drive = R"({"PTZCmd":2052,"Para1":5,"Para2":10,"Para3":0})";
constexpr const char* stop = R"({"PTZCmd":2305,"Para1":0,"Para2":0,"Para3":0})";

TEST_F(PtzResourcesTest, movesUntilItIsStopped)
{
    EXPECT_EQ(ask("PUT", "PTZCtrl", drive).code, 0);
    now += milliseconds(500);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Longitude"], 5.0);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Latitude"], -10.0);
    EXPECT_EQ(head()["moving"], true);
    EXPECT_EQ(ask("PUT", "PTZCtrl", stop).code, 0);
    now += milliseconds(500);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Longitude"], 5.0);
    EXPECT_EQ(head()["moving"], false);
    EXPECT_EQ(head()["commands"], 2u) << "questions are none";
    EXPECT_EQ(head()["lastCommand"], std::string("PUT PTZ/PTZCtrl ") + stop);
}

TEST_F(PtzResourcesTest, takesBothFormsOfThePathWhereDevicesDiffer)
{
    for (const std::string channel : {"/LAPI/V1.0/Channel/0/PTZ/", "/LAPI/V1.0/Channels/0/PTZ/"}) {
        SCOPED_TRACE(channel);
        EXPECT_EQ(askPath("PUT", channel + "PTZCtrl", drive).code, 0);
        EXPECT_EQ(ask("POST", "Presets", R"({"ID":1})").code, 0);
        EXPECT_EQ(askPath("PUT", channel + "Presets/1/goto").code, 0);
        EXPECT_EQ(askPath("DELETE", channel + "Presets/1").code, 0);
    }
    EXPECT_EQ(router.find("GET", "/LAPI/V1.0/Channel/0/PTZ/AbsoluteMove").handler, nullptr);
}

TEST_F(PtzResourcesTest, arrivesAtAbsolutePositionsAfterAWhile)
{
    EXPECT_EQ(ask("PUT", "AbsoluteMove", R"({ "Longitude":30, "Latitude":10, "MoveSpeed":1})").code, 0);
    EXPECT_EQ(ask("PUT", "AbsoluteZoom", R"({ "ZoomRatio":2, "ZoomSpeed":1 })").code, 0);
    now += milliseconds(750);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Longitude"], 15.0);
    now += milliseconds(750);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Longitude"], 30.0);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Latitude"], 10.0);
    EXPECT_EQ(ask("GET", "AbsoluteZoom").data["ZoomRatio"], 2.0);
}

TEST_F(PtzResourcesTest, zoomsIntoAndOutOfAreas)
{
    EXPECT_EQ(
        ask("PUT", "AreaZoomIn",
            R"({ "CenterPointx":1440, "CenterPointY":540, "LengthX":480, "LengthY":270, "Width":1920, "Height":1080 })")
            .code,
        0);
    now += std::chrono::minutes(1);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Longitude"], 15.0);
    EXPECT_EQ(ask("GET", "AbsoluteZoom").data["ZoomRatio"], 4.0);
    EXPECT_EQ(
        ask("PUT", "AreaZoomOut",
            R"({ "CenterPointx":960, "CenterPointY":540, "LengthX":960, "LengthY":2160, "Width":1920, "Height":1080 })")
            .code,
        0);
    now += std::chrono::minutes(1);
    EXPECT_EQ(ask("GET", "AbsoluteZoom").data["ZoomRatio"], 2.0);
}

TEST_F(PtzResourcesTest, refusesWrongBodiesAndStaysAsItWas)
{
    ask("PUT", "AbsoluteMove", R"({"Longitude":30,"Latitude":10})");
    now += std::chrono::minutes(1);
    const Json::Value before = head();
    for (const char* resource : {"PTZCtrl", "AbsoluteMove", "AbsoluteZoom", "AreaZoomIn", "AreaZoomOut", "Presets"})
        for (const char* body : {"", "[]", "{}"}) {
            SCOPED_TRACE(std::string(resource) + ' ' + body);
            const Reply reply = ask("PUT", resource, body);
            EXPECT_EQ(reply.status, 200u);
            EXPECT_EQ(reply.code, 2);
        }
    EXPECT_EQ(ask("POST", "Patrols", "{}").code, 2);
    EXPECT_EQ(head(), before);
}

TEST_F(PtzResourcesTest, aCameraTellsNewPresetsFromOldOnes)
{
    EXPECT_EQ(ask("PUT", "Presets", R"({ "ID":3, "Name":"Preset3" })").code, 2);
    EXPECT_EQ(ask("POST", "Presets", R"({ "ID":3, "Name":"Preset3" })").code, 0);
    EXPECT_EQ(ask("POST", "Presets", R"({ "ID":3, "Name":"Preset3" })").code, 2);
    EXPECT_EQ(ask("PUT", "Presets", R"({ "ID":3, "Name":"again" })").code, 0);
    EXPECT_EQ(ask("PUT", "Presets/3", R"({ "ID":3, "Name":"anew" })").code, 0);
    EXPECT_EQ(ask("PUT", "Presets/4", R"({ "ID":3, "Name":"anew" })").code, 2);
    const Json::Value list = ask("GET", "Presets").data;
    EXPECT_EQ(list["Nums"], 1u);
    EXPECT_EQ(list["PresetInfos"][0]["ID"], 3u);
    EXPECT_EQ(list["PresetInfos"][0]["Name"], "anew");
}

TEST_F(PtzResourcesOfRecorder, storesPresetsInEitherFormWithoutAsking)
{
    EXPECT_EQ(ask("PUT", "Presets/3", R"({ "ID":3, "Name":"Preset3" })").code, 0);
    EXPECT_EQ(ask("PUT", "Presets", R"({ "ID":4, "Name":"Preset4" })").code, 0);
    EXPECT_EQ(ask("PUT", "Presets/3", R"({ "ID":3, "Name":"again" })").code, 0);
    EXPECT_EQ(ask("GET", "Presets").data["Nums"], 2u);
    EXPECT_EQ(ask("PUT", "Patrols/0", R"({"ID":0,"Num":0,"Actions":[]})").code, 0);
}

TEST_F(PtzResourcesOfRecorder, hasAHeadForEachChannel)
{
    EXPECT_EQ(askPath("PUT", "/LAPI/V1.0/Channels/2/PTZ/PTZCtrl", drive).code, 0);
    EXPECT_EQ(head(0)["moving"], false);
    EXPECT_EQ(head(1)["moving"], true);
    for (const char* channel : {"0", "3", "x"})
        EXPECT_EQ(askPath("PUT", std::string("/LAPI/V1.0/Channels/") + channel + "/PTZ/PTZCtrl", drive).status, 599u);
}

TEST_F(PtzResourcesTest, recallsAndRemovesPresets)
{
    ask("PUT", "AbsoluteMove", R"({"Longitude":90,"Latitude":0})");
    now += std::chrono::minutes(1);
    ask("POST", "Presets", R"({"ID":1})");
    ask("PUT", "AbsoluteMove", R"({"Longitude":0,"Latitude":0})");
    now += std::chrono::minutes(1);
    EXPECT_EQ(ask("PUT", "Presets/1/goto").code, 0);
    EXPECT_EQ(head()["target"]["pan"], 90.0);
    now += std::chrono::minutes(1);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Longitude"], 90.0);
    EXPECT_EQ(head()["lastCommand"], "PUT PTZ/Presets/1/goto");
    EXPECT_EQ(ask("DELETE", "Presets/1").code, 0);
    EXPECT_EQ(ask("GET", "Presets").data["Nums"], 0u);
}

TEST_F(PtzResourcesTest, storesAndPlaysPatrols)
{
    ask("POST", "Presets", R"({"ID":1})");
    const std::string patrol =
        R"({"ID":1,"Num":1,"Actions":[{"ID":0,"Type":1538,"Para1":1,"Para2":1,"PresetID":1,"Duration":3000}]})";
    EXPECT_EQ(ask("PUT", "Patrols/1", patrol).code, 2) << "there is none to update";
    EXPECT_EQ(ask("POST", "Patrols", patrol).code, 0);
    EXPECT_EQ(ask("POST", "Patrols", patrol).code, 2) << "there is one already";
    EXPECT_EQ(ask("PUT", "Patrols/1", patrol).code, 0);
    EXPECT_EQ(ask("PUT", "Patrols/0", patrol).code, 2) << "the path has another number";
    EXPECT_EQ(ask("GET", "Patrols").data["Nums"], 1u);
    EXPECT_EQ(ask("GET", "Patrols").data["PatrolInfos"][0]["ID"], 1);

    ask("PUT", "AbsoluteMove", R"({"Longitude":20,"Latitude":0})");
    now += std::chrono::minutes(1);
    EXPECT_EQ(ask("PUT", "Patrols/1/Start").code, 0);
    EXPECT_EQ(head()["patrol"], 1u);
    now += milliseconds(500);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Longitude"], 10.0);
    EXPECT_EQ(ask("PUT", "Patrols/1/Stop").code, 0);
    now += milliseconds(500);
    EXPECT_EQ(ask("GET", "AbsoluteMove").data["Longitude"], 10.0);
    EXPECT_TRUE(head()["patrol"].isNull());
}

TEST_F(PtzResourcesTest, answersUnknownNumbersAsUnknownPaths)
{
    const struct {
        const char* method;
        const char* resource;
    } cases[] = {
        {"PUT", "Presets/7/goto"},  {"PUT", "Presets/x/goto"},  {"PUT", "Presets/-1/goto"}, {"DELETE", "Presets/7"},
        {"PUT", "Patrols/0/Start"}, {"PUT", "Patrols/x/Start"}, {"PUT", "Patrols/1/Stop"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.resource);
        const Reply reply = ask(c.method, c.resource);
        EXPECT_EQ(reply.status, 599u);
        EXPECT_EQ(reply.code, 1);
    }
    EXPECT_EQ(head()["commands"], 0u);
}

TEST_F(PtzResourcesTest, captionsThePictureWithTheView)
{
    EXPECT_EQ(heads.caption(0), "pan 0.00\ntilt 0.00\nzoom 1.00");
    ask("PUT", "AbsoluteMove", R"({"Longitude":330,"Latitude":-10,"MoveSpeed":1})");
    now += milliseconds(250);
    EXPECT_EQ(heads.caption(0), "pan 355.00\ntilt -5.00\nzoom 1.00");
    now += std::chrono::minutes(1);
    EXPECT_EQ(heads.caption(0), "pan 330.00\ntilt -10.00\nzoom 1.00");
    EXPECT_EQ(heads.caption(1), "pan 0.00\ntilt 0.00\nzoom 1.00");
}

}  // namespace
}  // namespace simulator
