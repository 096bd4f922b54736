// SPDX-License-Identifier: Apache-2.0
#include "client/Framing.h"

#include <gmock/gmock.h>

#include <random>
#include <string>
#include <vector>

namespace sampleclient {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> allOf(FrameReader& reader)
{
    std::vector<std::string> packets;
    while (const auto packet = reader.next())
        packets.emplace_back(*packet);
    return packets;
}

std::string framed(const std::string& packet)
{
    std::string stream;
    EXPECT_TRUE(appendFrame(stream, packet));
    return stream;
}

TEST(FramingTest, LengthComesFirstHighByteFirst)
{
    EXPECT_EQ(std::string("\x00\x03"
                          "abc",
                          5),
              framed("abc"));
    EXPECT_EQ(std::string("\x01\x02", 2), framed(std::string(0x102, 'x')).substr(0, 2));
}

TEST(FramingTest, LargestPacketFitsAndALargerOneIsLeftOut)
{
    FrameReader reader;
    reader.feed(framed(std::string(largestPacket, 'x')));
    EXPECT_THAT(allOf(reader), ElementsAre(std::string(largestPacket, 'x')));
    std::string stream = "before";
    EXPECT_FALSE(appendFrame(stream, std::string(largestPacket + 1, 'x')));
    EXPECT_EQ("before", stream);
}

TEST(FramingTest, StreamInSingleBytes)
{
    FrameReader reader;
    std::vector<std::string> packets;
    for (const char byte : framed("first") + framed("second")) {
        reader.feed({&byte, 1});
        for (const std::string& packet : allOf(reader))
            packets.push_back(packet);
    }
    EXPECT_THAT(packets, ElementsAre("first", "second"));
}

TEST(FramingTest, NothingIsHandedOutBeforeItIsWhole)
{
    FrameReader reader;
    const std::string stream = framed("packet");
    reader.feed(std::string_view(stream).substr(0, stream.size() - 1));
    EXPECT_THAT(allOf(reader), IsEmpty());
    reader.feed(std::string_view(stream).substr(stream.size() - 1));
    EXPECT_THAT(allOf(reader), ElementsAre("packet"));
}

TEST(FramingTest, EmptyFramesAreSkipped)
{
    FrameReader reader;
    reader.feed(framed("") + framed("a") + framed("") + framed("") + framed("b") + framed(""));
    EXPECT_THAT(allOf(reader), ElementsAre("a", "b"));
}

TEST(FramingTest, HoweverTheStreamIsCutThePacketsAreTheSame)
{
    std::mt19937 random(7);
    std::vector<std::string> sent;
    std::string stream;
    for (int i = 0; i < 2000; ++i) {
        sent.emplace_back(1 + random() % 1500, static_cast<char>(random()));
        appendFrame(stream, sent.back());
    }
    FrameReader reader;
    std::vector<std::string> received;
    for (std::size_t at = 0; at < stream.size();) {
        const std::string piece = stream.substr(at, 1 + random() % 5000);
        at += piece.size();
        reader.feed(piece);
        for (const std::string& packet : allOf(reader))
            received.push_back(packet);
    }
    EXPECT_EQ(sent, received);
}

}  // namespace
}  // namespace sampleclient
