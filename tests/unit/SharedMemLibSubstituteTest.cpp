// The library's entry over substitute system calls: this program brings the factory of system-call
// interfaces, so that the ring under construction can be made to fail in any way.

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <stdexcept>

#include "CapturedLog.h"
#include "CapturedOutput.h"
#include "FakeKernel.h"
#include "SharedMemLibFactory.h"
#include "SysFactory.h"

namespace qel {
namespace {

std::shared_ptr<SysIF> nextSystem;
std::vector<std::string> requestedNames;

}  // namespace

std::shared_ptr<SysIF> SysFactory::Create(std::string_view name) {
    requestedNames.emplace_back(name);
    return nextSystem;
}

namespace test {
namespace {

/// A kernel whose `shm_open` throws whatever it is told to.
class ThrowingKernel : public FakeKernel {
public:
    std::function<void()> onOpen;

private:
    int DoShmOpen(const char* name, int flags, unsigned int mode) override {
        (void)name;
        (void)flags;
        (void)mode;
        onOpen();
        return -1;
    }
};

class LibraryEntryOnSubstitute : public testing::Test {
public:
    ~LibraryEntryOnSubstitute() override {
        nextSystem.reset();
        requestedNames.clear();
    }

protected:
    template <typename System>
    std::shared_ptr<System> Use() {
        auto system = std::make_shared<System>();
        nextSystem = system;
        entry_ = SharedMemLibFactory::Create();
        nextSystem.reset();
        return system;
    }

    SharedPacketBufferResult Get() {
        return entry_->GetSharedPacketBuffer({"entry", 1024, 0, false, 0});
    }

    std::unique_ptr<SharedMemLibIF> entry_;
    CapturedLog log_;
};

TEST_F(LibraryEntryOnSubstitute, SystemIsAskedForOnceWithAnEmptyNameAndShared) {
    const auto kernel = Use<FakeKernel>();
    EXPECT_THAT(requestedNames, testing::ElementsAre(""));
    EXPECT_EQ(2, kernel.use_count());
    {
        const auto first = Get();
        const auto second = Get();
        EXPECT_EQ(SMStatusCode::SUCCESS, second.status);
        EXPECT_EQ(1U, requestedNames.size());
        EXPECT_EQ(6, kernel.use_count());  // each ring and its deleter
        entry_.reset();
        EXPECT_EQ(5, kernel.use_count());
    }
    EXPECT_EQ(1, kernel.use_count());
}

TEST_F(LibraryEntryOnSubstitute, RefusedStepsAreOneLineEachAndLeaveNothing) {
    const struct {
        const char* call;
        const char* text;
    } rows[] = {{"shm_open", "Exception: Problem Creating Shared memory segment"},
                {"ftruncate", "Exception: Problem Allocating Shared Memory"},
                {"mmap", "Exception: Unable to map shared memory"},
                {"close", "Exception: Closing shared memory fd"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        const auto kernel = Use<FakeKernel>();
        kernel->FailNth(row.call, 1, ENOMEM);
        CapturedOutput output;
        bool written = false;
        output.WhenWritten([&] {
            written = true;
            EXPECT_EQ(0, kernel->Mappings());
            EXPECT_EQ(2, kernel.use_count());  // the failed ring is gone before the line is written
        });
        const SharedPacketBufferResult result = Get();
        EXPECT_EQ(SMStatusCode::SHARED_MEMORY_FAILURE, result.status);
        EXPECT_EQ(nullptr, result.buffer);
        EXPECT_TRUE(written);
        EXPECT_EQ(
            std::string("Trouble creating shared memory invalid parameter: ") + row.text + "\n",
            output.Text());
        EXPECT_EQ("", output.Flushed());
    }
}

TEST_F(LibraryEntryOnSubstitute, InvalidArgumentIsAnInvalidParameterEvenFromDeepInside) {
    struct Derived : std::invalid_argument {
        using std::invalid_argument::invalid_argument;
    };
    const auto kernel = Use<ThrowingKernel>();
    kernel->onOpen = [] { throw Derived("bad name"); };
    const CapturedOutput output;
    const SharedPacketBufferResult result = Get();
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, result.status);
    EXPECT_EQ(nullptr, result.buffer);
    EXPECT_EQ("Trouble creating shared memory invalid parameter: bad name\n", output.Text());
    EXPECT_EQ("", output.Flushed());
}

TEST_F(LibraryEntryOnSubstitute, EveryOtherStandardExceptionIsASharedMemoryFailure) {
    const auto kernel = Use<ThrowingKernel>();
    const std::function<void()> throwers[] = {[] { throw std::logic_error("logic"); },
                                              [] { throw std::out_of_range("range"); },
                                              [] { throw std::bad_alloc(); }};
    const char* const texts[] = {"logic", "range", "std::bad_alloc"};
    for (std::size_t i = 0; i < 3; ++i) {
        kernel->onOpen = throwers[i];
        const CapturedOutput output;
        const SharedPacketBufferResult result = Get();
        EXPECT_EQ(SMStatusCode::SHARED_MEMORY_FAILURE, result.status);
        EXPECT_EQ(nullptr, result.buffer);
        EXPECT_EQ(
            std::string("Trouble creating shared memory invalid parameter: ") + texts[i] + "\n",
            output.Text());
    }
}

TEST_F(LibraryEntryOnSubstitute, LineIsAsAlwaysWhateverTheFormatsOfStandardOutput) {
    const auto kernel = Use<ThrowingKernel>();
    const struct {
        std::function<void()> thrower;
        SMStatusCode status;
    } rows[] = {{[] { throw std::invalid_argument("10"); }, SMStatusCode::INVALID_PARAMETER},
                {[] { throw std::runtime_error("10"); }, SMStatusCode::SHARED_MEMORY_FAILURE}};
    for (const auto& row : rows) {
        kernel->onOpen = row.thrower;
        const CapturedOutput output;
        FormatAsAHostMay();
        EXPECT_EQ(row.status, Get().status);
        EXPECT_EQ("Trouble creating shared memory invalid parameter: 10\n", output.Text());
    }
}

TEST_F(LibraryEntryOnSubstitute, WhatIsNoStandardExceptionLeavesTheOperationWithoutAWord) {
    const auto kernel = Use<ThrowingKernel>();
    kernel->onOpen = [] { throw 42; };
    const CapturedOutput output;
    try {
        (void)Get();
        ADD_FAILURE() << "nothing was thrown";
    } catch (int thrown) {
        EXPECT_EQ(42, thrown);
    }
    EXPECT_EQ("", output.Text());
    EXPECT_EQ(2, kernel.use_count());
}

}  // namespace
}  // namespace test
}  // namespace qel
