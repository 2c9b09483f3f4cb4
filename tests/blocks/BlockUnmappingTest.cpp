// What a block does with its share of the system calls at its end.

#include <sys/mman.h>

#include <cerrno>
#include <functional>
#include <stdexcept>

#include "BlockFixture.h"
#include "CapturedOutput.h"

namespace qel::test {
namespace {

/// The real system calls, whose unmapping can be made to say, by errno or by an exception, that it
/// failed.
class GrudgingSys : public Sys {
public:
    int unmapped = 0;
    int error = 0;
    std::function<void()> raise = [] {};

private:
    int DoMunmap(void* address, unsigned long length) override {
        ++unmapped;
        ::munmap(address, length);
        raise();
        errno = error;
        return error == 0 ? 0 : -1;
    }
};

class BlockUnmapping : public BlockTest {
protected:
    std::shared_ptr<GrudgingSys> sys_ = std::make_shared<GrudgingSys>();
    CapturedOutput output_;
};

TEST_F(BlockUnmapping, SaysNothingWhenItWorks) {
    { const SharedMemoryBlock block(sys_, name_.Name(), true, 10); }

    EXPECT_EQ(sys_->unmapped, 1);
    EXPECT_EQ(output_.Text(), "");
}

TEST_F(BlockUnmapping, WritesOneLineUnflushedWhenItFails) {
    sys_->error = EINVAL;
    { const SharedMemoryBlock block(sys_, name_.Name(), true, 10); }

    EXPECT_EQ(output_.Text(), "Problem unmapping shared memory fd - 22\n");
    EXPECT_EQ(output_.Flushed(), "");
}

TEST_F(BlockUnmapping, WritesItsLineAsAlwaysWhateverTheFormatsOfStandardOutput) {
    sys_->error = EINVAL;
    FormatAsAHostMay();
    { const SharedMemoryBlock block(sys_, name_.Name(), true, 10); }

    EXPECT_EQ(output_.Text(), "Problem unmapping shared memory fd - 22\n");
}

TEST_F(BlockUnmapping, FailsSilentlyWhenStandardOutputThrows) {
    sys_->error = EINVAL;
    auto block = std::make_unique<SharedMemoryBlock>(sys_, name_.Name(), true, 10);
    output_.RefuseByException();

    block.reset();  // an exception would end this program

    EXPECT_EQ(sys_->unmapped, 1);
    EXPECT_TRUE(std::cout.bad());
    EXPECT_EQ(Holding(), Holdings{});
}

TEST_F(BlockUnmapping, FailsSilentlyWhenTheSystemCallThrows) {
    const std::function<void()> raises[] = {[] { throw std::runtime_error("no"); },
                                            [] { throw 42; }};
    for (const auto& raise : raises) {
        sys_ = std::make_shared<GrudgingSys>();
        sys_->raise = raise;
        auto block = std::make_unique<SharedMemoryBlock>(sys_, name_.Name(), true, 10);

        block.reset();  // an exception would end this program

        EXPECT_EQ(sys_->unmapped, 1);
        EXPECT_EQ(sys_.use_count(), 1);
        EXPECT_EQ(output_.Text(), "");
        EXPECT_EQ(Holding(), Holdings{});
    }
}

TEST_F(BlockUnmapping, IsTheLastThingThatTheSystemCallsAreHeldFor) {
    const std::weak_ptr<GrudgingSys> watched = sys_;
    auto block = std::make_unique<SharedMemoryBlock>(std::move(sys_), name_.Name(), true, 10);
    EXPECT_FALSE(watched.expired());

    block.reset();

    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(Holding(), Holdings{});
}

TEST_F(BlockUnmapping, DoesNotHappenWithoutAMapping) {
    { const SharedMemoryBlock block; }
    EXPECT_EQ(Thrown([this] { const SharedMemoryBlock block(sys_, name_.Name(), false, 0); }),
              "failed to open shared memory: failed to read lockFile to get metadata");

    EXPECT_EQ(sys_->unmapped, 0);
}

}  // namespace
}  // namespace qel::test
