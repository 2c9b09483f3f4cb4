// The library's entry over real kernel objects.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <type_traits>

#include "CapturedLog.h"
#include "SharedMemLibFactory.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

class LibraryEntry : public testing::Test {
protected:
    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node, bool sink = false) const {
        return {name_.Name(), 4096, node, sink, 4};
    }

    /// Asks for a buffer that must be refused; returns what that wrote on standard output.
    std::string Refused(const SharedBufferIF::BufferInfo& info, SMStatusCode expected) {
        const CapturedLog log;
        testing::internal::CaptureStdout();
        const SharedPacketBufferResult result = entry_->GetSharedPacketBuffer(info);
        EXPECT_EQ(expected, result.status);
        EXPECT_EQ(nullptr, result.buffer);
        return testing::internal::GetCapturedStdout();
    }

    UniqueRingName name_;
    std::unique_ptr<SharedMemLibIF> entry_ = SharedMemLibFactory::Create();
};

TEST_F(LibraryEntry, ResultIsMovableAndNotCopyable) {
    static_assert(std::is_move_constructible_v<SharedPacketBufferResult>);
    static_assert(!std::is_copy_constructible_v<SharedPacketBufferResult>);
    EXPECT_NE(nullptr, entry_);
}

TEST_F(LibraryEntry, BufferComesWithSuccessAndWithoutAWord) {
    testing::internal::CaptureStdout();
    const SharedPacketBufferResult result = entry_->GetSharedPacketBuffer(Info(0));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    ASSERT_NE(nullptr, result.buffer);
    const Capacity capacity = result.buffer->GetCurrentCapacity();
    EXPECT_EQ(name_.Name(), capacity.shmName);
    EXPECT_EQ(5U, capacity.maxPackets);
    EXPECT_EQ(0U, capacity.numPackets);
}

TEST_F(LibraryEntry, ObjectHasTheNameAndTheLengthThatOthersExpect) {
    const SharedPacketBufferResult result = entry_->GetSharedPacketBuffer(Info(0));
    struct stat status {};
    ASSERT_EQ(0, ::stat(("/dev/shm/" + name_.Name() + ".shm").c_str(), &status));
    EXPECT_EQ(4096 + 152, status.st_size);
}

TEST_F(LibraryEntry, EveryRequestMakesABufferOfItsOwn) {
    const SharedPacketBufferResult first = entry_->GetSharedPacketBuffer(Info(0));
    const SharedPacketBufferResult second = entry_->GetSharedPacketBuffer(Info(0));
    ASSERT_NE(nullptr, first.buffer);
    ASSERT_NE(nullptr, second.buffer);
    EXPECT_NE(first.buffer, second.buffer);
    EXPECT_NE(entry_, SharedMemLibFactory::Create());
}

TEST_F(LibraryEntry, BuffersOutliveTheEntry) {
    const SharedPacketBufferResult source = entry_->GetSharedPacketBuffer(Info(0));
    SharedPacketBufferResult sink = entry_->GetSharedPacketBuffer(Info(1, true));
    entry_.reset();
    std::vector<unsigned char> data{1, 2, 3};
    Packet packet;
    packet.data = data;
    EXPECT_EQ(SMStatusCode::SUCCESS, source.buffer->WritePacket(packet));
    const ReadNextPacketResult read = sink.buffer->ReadNextPacket();
    EXPECT_EQ(SMStatusCode::SUCCESS, read.status);
    EXPECT_EQ(data, std::vector<unsigned char>(read.packet.data.begin(), read.packet.data.end()));
    EXPECT_EQ(SMStatusCode::SUCCESS, sink.buffer->ReleasePacket(read.packet));
    sink.buffer.reset();
}

TEST_F(LibraryEntry, ObjectStaysWhenItsBuffersAreGone) {
    entry_->GetSharedPacketBuffer(Info(0)).buffer.reset();
    EXPECT_EQ(0, ::access(name_.Path().c_str(), F_OK));
}

TEST_F(LibraryEntry, NodeOutsideTheChainIsAnInvalidParameterAndTouchesNothing) {
    EXPECT_EQ(
        "Trouble creating shared memory invalid parameter: Exception: Node index 5 is not in 0 to "
        "4\n",
        Refused(Info(5, true), SMStatusCode::INVALID_PARAMETER));
    EXPECT_EQ(
        "Trouble creating shared memory invalid parameter: Exception: Node index 4 is the last and "
        "must be the sink\n",
        Refused(Info(4, false), SMStatusCode::INVALID_PARAMETER));
    EXPECT_NE(0, ::access(name_.Path().c_str(), F_OK));
}

TEST_F(LibraryEntry, NameThatTheSystemRefusesIsASharedMemoryFailure) {
    for (const std::string& name : {std::string("a/b"), std::string(300, 'x')}) {
        auto info = Info(0);
        info.shmName = name;
        EXPECT_EQ(
            "Trouble creating shared memory invalid parameter: Exception: Problem Creating Shared "
            "memory segment\n",
            Refused(info, SMStatusCode::SHARED_MEMORY_FAILURE));
    }
}

TEST_F(LibraryEntry, SizeThatTheSystemRefusesIsASharedMemoryFailure) {
    auto info = Info(0);
    info.shmSize = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(
        "Trouble creating shared memory invalid parameter: Exception: Problem Allocating Shared "
        "Memory\n",
        Refused(info, SMStatusCode::SHARED_MEMORY_FAILURE));
}

}  // namespace
}  // namespace qel::test
