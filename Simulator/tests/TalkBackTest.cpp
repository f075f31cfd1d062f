#include "TalkBack.h"
#include "G711.h"
#include "SoundFile.h"
#include "TemporaryFile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace simulator
{
namespace
{

using test::TemporaryFile;

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// "RIFF", "WAVE" and the rest, for so many bytes of sound.
std::string header(unsigned char dataBytes)
{
    std::string text("RIFF\x24\0\0\0WAVEfmt \x10\0\0\0\x01\0\x01\0\x40\x1f\0\0\x80\x3e\0\0\x02\0\x10\0data\0\0\0\0",
                     44);
    text[4] = static_cast<char>(text[4] + dataBytes);
    text[40] = static_cast<char>(dataBytes);
    return text;
}

TEST(G711, decodesTheTablesOfTheRecommendation)
{
    const struct {
        std::uint8_t byte;
        int muLaw;
        int aLaw;
    } cases[] = {
        {0x00, -32124, -5504}, {0x80, 32124, 5504}, {0x7f, 0, -848},       {0xff, 0, 848},
        {0x55, -716, -8},      {0xd5, 716, 8},      {0x2a, -5372, -32256}, {0xaa, 5372, 32256},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.byte));
        EXPECT_EQ(decodeMuLaw(c.byte), c.muLaw);
        EXPECT_EQ(decodeALaw(c.byte), c.aLaw);
    }
}

TEST(SoundFile, isWholeAfterEachStep)
{
    const TemporaryFile name(".wav");
    SoundFile file(name.name());
    EXPECT_EQ(contentOf(name.name()), header(0));
    const std::int16_t first[] = {1, -2};
    file.append(first);
    EXPECT_EQ(contentOf(name.name()), header(4) + std::string("\x01\0\xfe\xff", 4));
    const std::int16_t second[] = {0x1234};
    file.append(second);
    EXPECT_EQ(contentOf(name.name()), header(6) + std::string("\x01\0\xfe\xff\x34\x12", 6));
}

TEST(SoundFile, saysWhenItCannotBeWritten)
{
    EXPECT_THROW(SoundFile("/there/is/no/such/folder/x.wav"), std::runtime_error);
}

TEST(TalkBack, countsAndWritesWhatIsSpoken)
{
    const TemporaryFile name(".wav");
    TalkBack talkBack(2, BackChannel::many, name.name());
    EXPECT_EQ(talkBack.state()[1]["calls"], 0u);
    EXPECT_TRUE(talkBack.state()[1]["law"].isNull());

    const auto call = talkBack.begin(1);
    const std::vector<std::uint8_t> payload{0x00, 0xff};
    EXPECT_EQ(call->take(0, 65535, payload), 1u);
    EXPECT_EQ(call->take(0, 0, payload), 2u) << "the sequence number has wrapped";
    EXPECT_EQ(call->take(0, 3, payload), 3u);
    EXPECT_EQ(call->take(96, 4, payload), 4u) << "this is no G.711";
    Json::Value state = talkBack.state()[1];
    EXPECT_EQ(state["calls"], 1u);
    EXPECT_EQ(state["active"], true);
    EXPECT_EQ(state["packets"], 4u);
    EXPECT_EQ(state["bytes"], 6u);
    EXPECT_EQ(state["lost"], 2);
    EXPECT_EQ(state["strange"], 1u);
    EXPECT_EQ(state["law"], "g711u");
    EXPECT_EQ(state["file"], name.name());
    EXPECT_EQ(talkBack.state()[0]["packets"], 0u);

    call->end();
    EXPECT_EQ(talkBack.state()[1]["active"], false);
    EXPECT_EQ(contentOf(name.name()), header(12) + std::string("\x84\x82\0\0\x84\x82\0\0\x84\x82\0\0", 12));
}

TEST(TalkBack, doesNotCountLatePacketsAsLost)
{
    TalkBack talkBack(1, BackChannel::many, {});
    const auto call = talkBack.begin(0);
    for (const std::uint16_t sequence : std::initializer_list<std::uint16_t>{10, 12, 11, 13})
        call->take(8, sequence, {});
    EXPECT_EQ(talkBack.state()[0]["lost"], 0);
    EXPECT_EQ(talkBack.state()[0]["law"], "g711a");
    EXPECT_TRUE(talkBack.state()[0]["file"].isNull());
}

TEST(TalkBack, takesNoLawThatItDoesNotOffer)
{
    const std::vector<std::uint8_t> payload(160);
    for (const bool muLaw : {true, false}) {
        TalkBack talkBack(1, muLaw ? BackChannel::g711u : BackChannel::g711a, {});
        const auto call = talkBack.begin(0);
        call->take(0, 1, payload);
        call->take(8, 2, payload);
        EXPECT_EQ(talkBack.state()[0]["law"], muLaw ? "g711u" : "g711a");
        EXPECT_EQ(talkBack.state()[0]["strange"], 1u);
        EXPECT_EQ(talkBack.state()[0]["bytes"], 160u);
    }
}

TEST(TalkBack, givesEachCallAFileOfItsOwn)
{
    const TemporaryFile name(".wav");
    TalkBack talkBack(1, BackChannel::many, name.name());
    talkBack.begin(0);
    const auto second = talkBack.begin(0);
    const std::string secondName = talkBack.state()[0]["file"].asString();
    EXPECT_EQ(secondName, name.name().substr(0, name.name().size() - 4) + "-2.wav");
    EXPECT_EQ(contentOf(secondName), header(0));
    std::filesystem::remove(secondName);

    const TemporaryFile folder("");
    std::filesystem::create_directory(folder.name());
    TalkBack inFolder(2, BackChannel::many, folder.name());
    inFolder.begin(1);
    EXPECT_EQ(inFolder.state()[1]["file"], folder.name() + "/channel2-call1.wav");
    std::filesystem::remove_all(folder.name());
}

TEST(TalkBack, hearsTheNewestCallAlone)
{
    TalkBack talkBack(1, BackChannel::many, {});
    const auto first = talkBack.begin(0);
    const auto second = talkBack.begin(0);
    first->take(0, 1, {});
    first->end();
    EXPECT_EQ(talkBack.state()[0]["active"], true);
    EXPECT_EQ(talkBack.state()[0]["packets"], 0u);
    EXPECT_EQ(talkBack.state()[0]["calls"], 2u);
}

TEST(TalkBack, goesOnWithoutAFileThatCannotBeWritten)
{
    TalkBack talkBack(1, BackChannel::many, "/there/is/no/such/folder/x.wav");
    const auto call = talkBack.begin(0);
    EXPECT_EQ(call->take(0, 1, {}), 1u);
    EXPECT_TRUE(talkBack.state()[0]["file"].isNull());
}

}  // namespace
}  // namespace simulator
