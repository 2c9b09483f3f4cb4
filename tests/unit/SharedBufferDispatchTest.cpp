// Which steps of the ring go through its virtual operations, and in which order it changes the
// control block: a derived ring steps in between.

#include <functional>
#include <optional>

#include "RingHarness.h"

namespace qel::test {
namespace {

class InterceptedRing : public SharedBuffer {
public:
    using SharedBuffer::SharedBuffer;

    std::function<SMStatusCode(std::uint64_t, std::uint32_t)> onRelease;
    std::function<ReadResult(std::uint64_t, std::uint64_t)> onRead;

private:
    SMStatusCode DoReleaseData(std::uint64_t size, std::uint32_t count) override {
        return onRelease(size, count);
    }
    ReadResult DoReadData(std::uint64_t index, std::uint64_t length) override {
        return onRead(index, length);
    }
};

class GatheringRing : public SharedBuffer {
public:
    using SharedBuffer::SharedBuffer;

    const unsigned char* headerStart = nullptr;
    std::vector<ByteSpan> gathered;
    std::uint64_t statedSize = 0;
    std::optional<bool> critical;

private:
    WriteResult DoWriteHeaderMultiData(const ByteSpan& header, const std::vector<ByteSpan>& data,
                                       std::uint64_t dataSize, bool isCritical) override {
        headerStart = header.data();
        gathered = data;
        statedSize = dataSize;
        critical = isCritical;
        return {77, SMStatusCode::WILL_WRAP};
    }
};

class SharedBufferDispatch : public SubstituteRing {
protected:
    Bytes header_ = CountingBytes(kHeader, 1);
    Bytes payload_ = CountingBytes(20, 100);
};

TEST_F(SharedBufferDispatch, PlainWriteIsAGatheredWriteOfOneSpan) {
    const auto ring = Open<GatheringRing>(0);
    for (const bool critical : {true, false}) {
        const WriteResult result = ring->WriteHeaderPayload(header_, payload_, critical);
        EXPECT_EQ(77U, result.index);
        EXPECT_EQ(SMStatusCode::WILL_WRAP, result.status);
        EXPECT_EQ(header_.data(), ring->headerStart);
        ASSERT_EQ(1U, ring->gathered.size());
        EXPECT_EQ(payload_.data(), ring->gathered[0].data());
        EXPECT_EQ(20U, ring->gathered[0].size());
        EXPECT_EQ(20U, ring->statedSize);
        EXPECT_EQ(critical, ring->critical);
    }
    EXPECT_EQ(kSize, Control().avail[0]);
}

TEST_F(SharedBufferDispatch, WriteCopiesCountsAndTakesBeforeItReleasesAndMovesTheIndexLast) {
    const auto ring = Open<InterceptedRing>(0, false, 4);
    Control().wIdx[0] = 50;
    int releases = 0;
    ring->onRelease = [&](std::uint64_t size, std::uint32_t count) {
        ++releases;
        EXPECT_EQ(46U, size);
        EXPECT_EQ(1U, count);
        EXPECT_EQ(header_, DataAt(50, kHeader));
        EXPECT_EQ(payload_, DataAt(76, 20));
        EXPECT_EQ(1U, Control().numPackets);
        EXPECT_EQ(kSize - 46, Control().avail[0]);
        EXPECT_EQ(50U, Control().wIdx[0]);
        return SMStatusCode::DATA_NOT_AVAILABLE;
    };
    const WriteResult result = ring->WriteHeaderPayload(header_, payload_, false);
    EXPECT_EQ(1, releases);
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, result.status);
    EXPECT_EQ(96U, result.index);
    EXPECT_EQ(96U, Control().wIdx[0]);
    EXPECT_EQ(0U, Control().avail[1]);
}

TEST_F(SharedBufferDispatch, FillMovesTheIndexPastItsHeaderBeforeItReleasesAndToItsEndLast) {
    const auto ring = Open<InterceptedRing>(0, false, 4);
    Control().wIdx[0] = 50;
    int releases = 0;
    ring->onRelease = [&](std::uint64_t size, std::uint32_t count) {
        ++releases;
        EXPECT_EQ(66U, size);
        EXPECT_EQ(1U, count);
        EXPECT_EQ(header_, DataAt(50, kHeader));
        EXPECT_EQ(1U, Control().numPackets);
        EXPECT_EQ(kSize - 66, Control().avail[0]);
        EXPECT_EQ(76U, Control().wIdx[0]);
        return SMStatusCode::SHARED_MEMORY_FAILURE;
    };
    const WriteResult result = ring->WriteHeaderSkipPayload(header_, 40);
    EXPECT_EQ(1, releases);
    EXPECT_EQ(SMStatusCode::SHARED_MEMORY_FAILURE, result.status);
    EXPECT_EQ(116U, result.index);
    EXPECT_EQ(116U, Control().wIdx[0]);
}

TEST_F(SharedBufferDispatch, StatusOfTheReleaseGoesBeforeAClamp) {
    const auto ring = Open<InterceptedRing>(0, false, 4);
    ring->onRelease = [](std::uint64_t, std::uint32_t) { return SMStatusCode::WILL_WRAP; };
    Control().numPackets = 5;
    Control().avail[0] = 10;
    EXPECT_EQ(SMStatusCode::WILL_WRAP, ring->WriteHeaderSkipPayload(header_, 40).status);
    EXPECT_EQ(0U, Control().avail[0]);

    ring->onRelease = [](std::uint64_t, std::uint32_t) { return SMStatusCode::SUCCESS; };
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->WriteHeaderSkipPayload(header_, 40).status);
}

TEST_F(SharedBufferDispatch, HeaderIsReadAtTheReadIndexThroughTheDataRead) {
    const auto ring = Open<InterceptedRing>(1);
    Control().avail[1] = 100;
    Control().rIdx[1] = 33;
    ring->onRead = [&](std::uint64_t index, std::uint64_t length) {
        EXPECT_EQ(33U, index);
        EXPECT_EQ(kHeader, length);
        return ReadResult{payload_, SMStatusCode::SUCCESS};
    };
    EXPECT_EQ(payload_.data(), ring->ReadHeader(kHeader).data.data());
}

TEST_F(SharedBufferDispatch, RefusedDataReadIsTheHeadersStatusWithoutAView) {
    const auto ring = Open<InterceptedRing>(1);
    Control().avail[1] = 100;
    ring->onRead = [&](std::uint64_t, std::uint64_t) {
        return ReadResult{payload_, SMStatusCode::WILL_WRAP};
    };
    const ReadResult header = ring->ReadHeader(kHeader);
    EXPECT_EQ(SMStatusCode::WILL_WRAP, header.status);
    EXPECT_EQ(0U, header.data.size());

    ring->onRead = [&](std::uint64_t index, std::uint64_t) {
        EXPECT_EQ(0U, index);  // no header is pending
        return ReadResult{payload_, SMStatusCode::SUCCESS};
    };
    EXPECT_EQ(0U, ring->ReadPayload(4).index);
}

TEST_F(SharedBufferDispatch, DataIsNotReadWhenItIsNotAvailable) {
    const auto ring = Open<InterceptedRing>(1);
    ring->onRead = [](std::uint64_t, std::uint64_t) {
        ADD_FAILURE() << "read before it was available";
        return ReadResult{{}, SMStatusCode::SUCCESS};
    };
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, ring->ReadHeader(1).status);
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, ring->ReadPayload(1).status);
}

TEST_F(SharedBufferDispatch, PayloadIsTakenAfterItsDataReadWhateverThatSays) {
    const auto ring = Open<InterceptedRing>(1);
    Control().avail[1] = 100;
    Control().rIdx[1] = 10;
    ring->onRead = [&](std::uint64_t index, std::uint64_t length) {
        EXPECT_EQ(10U, index);
        EXPECT_EQ(20U, length);
        EXPECT_EQ(100U, Control().avail[1]);
        EXPECT_EQ(10U, Control().rIdx[1]);
        return ReadResult{payload_, SMStatusCode::NOT_ENOUGH_SPACE};
    };
    const PayloadResult result = ring->ReadPayload(20);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, result.status);
    EXPECT_EQ(10U, result.index);
    EXPECT_EQ(payload_.data(), result.data.data());
    EXPECT_EQ(80U, Control().avail[1]);
    EXPECT_EQ(30U, Control().rIdx[1]);
}

TEST_F(SharedBufferDispatch, ClampWhileAPayloadIsTakenIsOnlyNoted) {
    const auto ring = Open<InterceptedRing>(1);
    Control().avail[1] = 100;
    ring->onRead = [&](std::uint64_t, std::uint64_t) {
        Control().avail[1] = 5;
        return ReadResult{payload_, SMStatusCode::SUCCESS};
    };
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReadPayload(20).status);
    EXPECT_EQ(0U, Control().avail[1]);
    EXPECT_EQ("DecreaseAvailableSize " + Name() +
                  " Reserving too much [current available=5], reserving 20",
              TakeErrorText(*ring));
}

TEST_F(SharedBufferDispatch, PublicReleaseIsTheVirtualOne) {
    const auto ring = Open<InterceptedRing>(1);
    ring->onRelease = [](std::uint64_t size, std::uint32_t count) {
        EXPECT_EQ(9U, size);
        EXPECT_EQ(8U, count);
        return SMStatusCode::WILL_WRAP;
    };
    EXPECT_EQ(SMStatusCode::WILL_WRAP, ring->ReleaseData(9, 8));
}

}  // namespace
}  // namespace qel::test
