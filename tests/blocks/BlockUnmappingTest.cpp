// What a block does with its share of the system calls at its end.

#include <sys/mman.h>

#include <cerrno>
#include <iostream>
#include <streambuf>

#include "BlockFixture.h"

namespace qel::test {
namespace {

/// The real system calls, whose unmapping can be made to say that it failed.
class GrudgingSys : public Sys {
public:
    int unmapped = 0;
    int error = 0;

private:
    int DoMunmap(void* address, unsigned long length) override {
        ++unmapped;
        ::munmap(address, length);
        errno = error;
        return error == 0 ? 0 : -1;
    }
};

/// Stands in for standard output; counts flushes, and can refuse everything.
class Output : public std::streambuf {
public:
    Output() : before_(std::cout.rdbuf(this)), exceptions_(std::cout.exceptions()) {}
    ~Output() override {
        std::cout.exceptions(std::ios::goodbit);
        std::cout.clear();
        std::cout.rdbuf(before_);
        std::cout.exceptions(exceptions_);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    std::string text;
    int flushes = 0;
    bool refuses = false;

private:
    int_type overflow(int_type character) override {
        if (refuses) {
            return traits_type::eof();
        }
        text += traits_type::to_char_type(character);
        return character;
    }
    int sync() override {
        ++flushes;
        return 0;
    }

    std::streambuf* before_;
    std::ios::iostate exceptions_;
};

class BlockUnmapping : public BlockTest {
protected:
    std::shared_ptr<GrudgingSys> sys_ = std::make_shared<GrudgingSys>();
    Output output_;
};

TEST_F(BlockUnmapping, SaysNothingWhenItWorks) {
    { const SharedMemoryBlock block(sys_, name_.Name(), true, 10); }

    EXPECT_EQ(sys_->unmapped, 1);
    EXPECT_EQ(output_.text, "");
}

TEST_F(BlockUnmapping, WritesOneLineUnflushedWhenItFails) {
    sys_->error = EINVAL;
    { const SharedMemoryBlock block(sys_, name_.Name(), true, 10); }

    EXPECT_EQ(output_.text, "Problem unmapping shared memory fd - 22\n");
    EXPECT_EQ(output_.flushes, 0);
}

TEST_F(BlockUnmapping, FailsSilentlyWhenStandardOutputThrows) {
    sys_->error = EINVAL;
    auto block = std::make_unique<SharedMemoryBlock>(sys_, name_.Name(), true, 10);
    output_.refuses = true;
    std::cout.exceptions(std::ios::badbit | std::ios::failbit);

    EXPECT_NO_THROW(block.reset());

    EXPECT_EQ(sys_->unmapped, 1);
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
