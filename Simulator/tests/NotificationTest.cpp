#include "Notification.h"

#include "LapiEnvelope.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using namespace std::chrono_literals;

constexpr std::int64_t now = 1'489'040'894;

EventCommand parsed(const std::string& text)
{
    return std::get<EventCommand>(parseEventCommand(parseJson(text).value()));
}

Transmission transmit(const std::string& command)
{
    return makeTransmission(parsed(command), {"192.0.2.1:32000", "192.0.2.10:80/Subscription/Subscribers/178"}, 327,
                            now);
}

std::string headOf(const std::string& bytes)
{
    return bytes.substr(0, bytes.find("\r\n\r\n") + 4);
}

std::string bodyOf(const std::string& bytes)
{
    return bytes.substr(headOf(bytes).size());
}

std::size_t announcedLength(const std::string& bytes)
{
    const std::string name = "Content-Length: ";
    return std::stoul(bytes.substr(bytes.find(name) + name.size()));
}

/// "AlarmInfo" of a whole notification.
Json::Value alarmInfo(const std::string& command)
{
    return parseJson(bodyOf(transmit(command).bytes)).value()["AlarmInfo"];
}

constexpr const char* motionBody =
    R"({"Reference": "192.0.2.10:80/Subscription/Subscribers/178", "AlarmInfo": )"
    R"({"AlarmType": "MotionAlarmOn", "AlarmLevel": 0, "TimeStamp": 1489040894, "AlarmSeq": 327, )"
    R"("AlarmSrcID": 1, "AlarmSrcType": 8, "AlarmSrcName": "Camera1"}})";

TEST(Notification, isSentToTheByte)
{
    const Transmission sent = transmit(R"({"type": "MotionAlarmOn"})");
    EXPECT_EQ(sent.bytes, "POST /LAPI/V1.0/System/Event/Notification/Alarm HTTP/1.1\r\n"
                          "Host: 192.0.2.1:32000\r\n"
                          "Content-Type: application/json\r\n"
                          "Connection: keep-alive\r\n"
                          "Content-Length: 226\r\n"
                          "\r\n" +
                              std::string(motionBody));
    EXPECT_EQ(sent.firstPiece, std::string::npos);
    EXPECT_EQ(sent.repeatFrom, std::string::npos);
    EXPECT_FALSE(sent.closes);
}

TEST(Notification, tellsAnInputFromAChannel)
{
    const Json::Value input = alarmInfo(R"({"type": "InputAlarmOn", "input": 1})");
    EXPECT_EQ(input["AlarmSrcID"], 2);
    EXPECT_EQ(input["AlarmSrcName"], "Input2");
    EXPECT_NE(input["AlarmSrcType"], 8);
    const Json::Value channel = alarmInfo(R"({"type": "MotionAlarmOn", "channel": 1, "level": 5, "time": 7})");
    EXPECT_EQ(channel["AlarmSrcID"], 2);
    EXPECT_EQ(channel["AlarmSrcName"], "Camera2");
    EXPECT_EQ(channel["AlarmLevel"], 5);
    EXPECT_EQ(channel["TimeStamp"], 7);
}

TEST(Notification, takesFieldsInPlaceOfItsOwn)
{
    const std::string bytes = transmit(R"({"type": "MotionAlarmOn", "fields":
        {"SourceID": 3, "AlarmType": 5, "TimeStamp": null, "AlarmSrcName": {"a": [1.5, "\u00e4"]}}})")
                                  .bytes;
    EXPECT_NE(bytes.find(R"({"AlarmType": 5, "AlarmLevel": 0, "AlarmSeq": 327, "AlarmSrcID": 1, "AlarmSrcType": 8, )"),
              std::string::npos)
        << bytes;
    const Json::Value info = parseJson(bodyOf(bytes)).value()["AlarmInfo"];
    EXPECT_EQ(info["SourceID"], 3);
    EXPECT_EQ(info["AlarmSrcName"]["a"][1], "\xc3\xa4");
    EXPECT_EQ(announcedLength(bytes), bodyOf(bytes).size());
}

TEST(Notification, isCutIntoPieces)
{
    const std::string whole = transmit(R"({"type": "MotionAlarmOn"})").bytes;
    const Transmission split = transmit(R"({"type": "MotionAlarmOn", "form": "split"})");
    EXPECT_EQ(split.bytes, whole);
    EXPECT_EQ(split.firstPiece, headOf(whole).size());
    EXPECT_EQ(split.furtherPieces, std::string::npos);
    EXPECT_EQ(split.pause, 20ms);
    const Transmission bytes = transmit(R"({"type": "MotionAlarmOn", "form": "bytes"})");
    EXPECT_EQ(bytes.bytes, whole);
    EXPECT_EQ(bytes.firstPiece, 1u);
    EXPECT_EQ(bytes.furtherPieces, 1u);
    EXPECT_EQ(bytes.pause, 0ms);
    EXPECT_EQ(transmit(R"({"type": "MotionAlarmOn", "form": "slow"})").pause, 1s);
}

TEST(Notification, mayBeSeveralInOneWrite)
{
    const Transmission three = transmit(R"({"type": "MotionAlarmOn", "count": 3})");
    const std::string first = transmit(R"({"type": "MotionAlarmOn"})").bytes;
    ASSERT_EQ(three.bytes.size(), 3 * first.size());
    EXPECT_EQ(three.bytes.substr(0, first.size()), first);
    EXPECT_NE(three.bytes.find("\"AlarmSeq\": 328"), std::string::npos);
    EXPECT_NE(three.bytes.find("\"AlarmSeq\": 329"), std::string::npos);
}

TEST(Notification, carriesPicturesWithoutAlarmInfo)
{
    const std::string bytes = transmit(R"({"pictureBytes": 300000})").bytes;
    EXPECT_TRUE(bytes.starts_with("POST /LAPI/V1.0/System/Event/Notification/Structure HTTP/1.1\r\n"));
    EXPECT_EQ(announcedLength(bytes), bodyOf(bytes).size());
    EXPECT_GT(bytes.size(), 300'000u);
    const Json::Value body = parseJson(bodyOf(bytes)).value();
    EXPECT_FALSE(body.isMember("AlarmInfo"));
    EXPECT_EQ(body["StructureInfo"]["ImageInfoList"][0]["Data"].asString().size(), 300'000u);
    EXPECT_TRUE(parseJson(bodyOf(transmit(R"({"pictureBytes": 1})").bytes)));
}

TEST(Notification, comesInChunks)
{
    const std::string bytes = transmit(R"({"body": "0123456789", "form": "chunked"})").bytes;
    EXPECT_NE(headOf(bytes).find("\r\nTransfer-Encoding: chunked\r\n"), std::string::npos);
    EXPECT_EQ(headOf(bytes).find("Content-Length"), std::string::npos);
    EXPECT_EQ(bodyOf(bytes), "4\r\n0123\r\n4\r\n4567\r\n2\r\n89\r\n0\r\n\r\n");
    EXPECT_EQ(bodyOf(transmit(R"({"body": "", "form": "chunked"})").bytes), "0\r\n\r\n");
}

TEST(Notification, isBrokenInEachWayThatIsAskedFor)
{
    const std::string body = motionBody;
    const auto broken = [](const std::string& form) {
        return transmit(R"({"type": "MotionAlarmOn", "form": ")" + form + "\"}");
    };
    const std::string headOnly = broken("headonly").bytes;
    EXPECT_EQ(headOf(headOnly), headOnly);
    EXPECT_EQ(announcedLength(headOnly), 0u);

    const Transmission cut = broken("cut");
    EXPECT_TRUE(cut.closes);
    EXPECT_EQ(announcedLength(cut.bytes), body.size());
    EXPECT_EQ(bodyOf(cut.bytes), body.substr(0, body.size() / 2));

    const Transmission brokenJson = broken("brokenjson");
    EXPECT_FALSE(brokenJson.closes);
    EXPECT_EQ(announcedLength(brokenJson.bytes), bodyOf(brokenJson.bytes).size());
    EXPECT_FALSE(parseJson(bodyOf(brokenJson.bytes)));

    const std::string wrongLength = broken("wronglength").bytes;
    EXPECT_EQ(bodyOf(wrongLength), body);
    EXPECT_EQ(announcedLength(wrongLength), body.size() - 16);
    EXPECT_EQ(announcedLength(transmit(R"({"body": "short", "form": "wronglength"})").bytes), 0u);

    const std::string oversized = broken("oversized").bytes;
    EXPECT_GT(announcedLength(oversized), 1024u * 1024u);
    EXPECT_EQ(announcedLength(oversized), bodyOf(oversized).size());
    EXPECT_TRUE(parseJson(bodyOf(oversized))) << "nothing but its size is wrong with it";

    EXPECT_TRUE(broken("garbage").closes);
    EXPECT_EQ(broken("garbage").bytes.find("HTTP/1.1"), std::string::npos);
}

TEST(Notification, goesOnForEver)
{
    for (const char* command : {R"({"form": "endless"})", R"({"type": "MotionAlarmOn", "form": "endless"})"}) {
        const Transmission endless = transmit(command);
        EXPECT_NE(headOf(endless.bytes).find("Transfer-Encoding: chunked"), std::string::npos);
        ASSERT_LT(endless.repeatFrom, endless.bytes.size());
        EXPECT_TRUE(endless.bytes.substr(endless.repeatFrom).starts_with("1000\r\n"));
        EXPECT_TRUE(endless.bytes.ends_with("\r\n"));
        EXPECT_EQ(endless.bytes.find("\r\n0\r\n"), std::string::npos) << "an empty chunk would be the end";
    }
}

TEST(HostAndPort, putsIpv6InBrackets)
{
    EXPECT_EQ(hostAndPort("192.0.2.1", 80), "192.0.2.1:80");
    EXPECT_EQ(hostAndPort("::1", 80), "[::1]:80");
}

}  // namespace
}  // namespace simulator
