#include <gtest/gtest.h>

#include "EndOfStream.h"
#include "MockPacketBuffer.h"

namespace qel::test {
namespace {

TEST(EndOfStream, MarkIsRecognisedAndIsAnEmptyPacketWithTheSmallestTimeStamp) {
    const Packet mark = MakeEndOfStream();
    EXPECT_TRUE(IsEndOfStream(mark));
    EXPECT_TRUE(mark.data.empty());
    const std::int64_t pts = mark.header.pts;
    EXPECT_EQ(pts, INT64_MIN);
    EXPECT_FALSE(mark.header.ignoreData);
}

TEST(EndOfStream, EmptyPacketOfContentIsNoMark) {
    EXPECT_FALSE(IsEndOfStream(OwnedPacket(0, 0).Get()));
    EXPECT_FALSE(IsEndOfStream(OwnedPacket(0, INT64_MIN + 1).Get()));
}

TEST(EndOfStream, PacketWithBytesIsNoMarkWhateverItsTimeStamp) {
    EXPECT_FALSE(IsEndOfStream(OwnedPacket(1, INT64_MIN).Get()));
}

TEST(EndOfStream, FillerIsNoMarkWhateverItsTimeStamp) {
    Packet filler = MakeEndOfStream();
    filler.header.ignoreData = true;
    EXPECT_FALSE(IsEndOfStream(filler));
}

}  // namespace
}  // namespace qel::test
