#include "Fault.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

Fault parsed(std::string_view text)
{
    auto result = parseFault(text);
    if (const auto* why = std::get_if<std::string>(&result)) {
        ADD_FAILURE() << text << ": " << *why;
        return {};
    }
    return std::get<Fault>(result);
}

TEST(Fault, isReadWithNumberAndPattern)
{
    const struct {
        const char* text;
        FaultKind kind;
        unsigned argument;
        const char* pattern;
    } cases[] = {
        {"refuse", FaultKind::refuse, 0, ""},
        {"hang@Network/Port", FaultKind::hang, 0, "Network/Port"},
        {"status:503", FaultKind::status, 503, ""},
        {"status:302@PUT /LAPI", FaultKind::status, 302, "PUT /LAPI"},
        {"slow:250@DeviceInfo", FaultKind::slow, 250, "DeviceInfo"},
        {"truncate", FaultKind::truncate, 0, ""},
        {"truncate:404", FaultKind::truncate, 404, ""},
        {"rtsp-status:454@SETUP", FaultKind::rtspStatus, 454, "SETUP"},
        {"rtsp-drop:3", FaultKind::rtspDrop, 3000, ""},
        {"rtsp-drop:0.25", FaultKind::rtspDrop, 250, ""},
        {"records-total:0", FaultKind::recordsTotal, 0, ""},
        {"records-total:4294967295@Offset=100", FaultKind::recordsTotal, UINT32_MAX, "Offset=100"},
        {"records-stall:0", FaultKind::recordsStall, 0, ""},
        {"talk-drop:50@media/video1", FaultKind::talkDrop, 50, "media/video1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const Fault fault = parsed(c.text);
        EXPECT_EQ(fault.kind, c.kind);
        EXPECT_EQ(fault.argument, c.argument);
        EXPECT_EQ(fault.pattern, c.pattern);
        EXPECT_EQ(fault.text, c.text);
    }
}

TEST(Fault, saysWhatIsWrongWithIt)
{
    const struct {
        const char* text;
        const char* part;
    } cases[] = {
        {"", "no fault ''"},
        {"explode", "no fault 'explode'"},
        {"status", "needs a number"},
        {"status:", "cannot take ''"},
        {"status:abc", "cannot take 'abc'"},
        {"status:99", "cannot take '99', only 200..999."},
        {"status:503x", "cannot take '503x'"},
        {"status:-1", "cannot take '-1'"},
        {"status:99999999999", "cannot take '99999999999'"},
        {"slow:0", "cannot take '0'"},
        {"rtsp-status:200", "cannot take '200'"},
        {"rtsp-drop:0", "cannot take '0', only 0.001..86400."},
        {"rtsp-drop:nan", "cannot take 'nan'"},
        {"rtsp-drop:1s", "cannot take '1s'"},
        {"talk-drop:0", "cannot take '0', only 1..1000000."},
        {"records-total:4294967296", "cannot take '4294967296', only 0..4294967295."},
        {"hang:3", "takes no number"},
        {"hang@", "nothing after '@'"},
        {"refuse@Port", "takes no '@' pattern"},
        {"rtsp-drop:3@PLAY", "takes no '@' pattern"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto result = parseFault(c.text);
        const auto* why = std::get_if<std::string>(&result);
        ASSERT_NE(why, nullptr);
        EXPECT_NE(why->find(c.part), std::string::npos) << *why;
    }
}

TEST(Fault, ofEveryNameIsDescribed)
{
    const std::string help = describeFaults();
    for (const char* name : {"refuse", "hang", "close", "garbage", "status:N", "brokenjson", "emptybody", "slow:N",
                             "truncate[:N]", "nodata", "rtsp-status:N", "rtsp-refuse", "rtsp-drop:N", "rtsp-notracks"})
        EXPECT_NE(help.find(std::string("  ") + name), std::string::npos) << name;
    EXPECT_NE(help.find("answer with this HTTP status (200..999)\n"), std::string::npos) << help;
    EXPECT_NE(help.find("say this \"Total\" in record lists (0..4294967295)\n"), std::string::npos) << help;
}

TEST(FaultTable, findsByKindAndPattern)
{
    const FaultTable table({parsed("status:503@Network"), parsed("hang")});
    EXPECT_TRUE(table.find(FaultKind::status, "GET /LAPI/V1.0/Network/Port"));
    EXPECT_FALSE(table.find(FaultKind::status, "GET /LAPI/V1.0/System/DeviceInfo"));
    EXPECT_TRUE(table.find(FaultKind::hang, "GET /anything"));
    EXPECT_FALSE(table.find(FaultKind::close, "GET /anything"));
}

TEST(FaultTable, prefersTheNewest)
{
    FaultTable table({parsed("status:503")});
    table.add(parsed("status:404"));
    EXPECT_EQ(table.find(FaultKind::status, "GET /")->argument, 404u);
}

TEST(FaultTable, removesByTextOrAll)
{
    FaultTable table({parsed("status:503"), parsed("hang"), parsed("status:503")});
    EXPECT_EQ(table.remove("status:500"), 0u);
    EXPECT_EQ(table.remove("status:503"), 2u);
    EXPECT_EQ(table.list().size(), 1u);
    table.clear();
    EXPECT_TRUE(table.list().empty());
}

}  // namespace
}  // namespace simulator
