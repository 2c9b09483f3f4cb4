// Opening, mapping and giving back a segment: the system calls, their failures and their records.

#include <gmock/gmock.h>

#include <cerrno>

#include "RingHarness.h"

namespace qel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SharedBufferLifecycle : public SubstituteRing {
protected:
    std::string OpenCall() { return "shm_open(" + ObjectName() + ", 66, 438)"; }
};

TEST_F(SharedBufferLifecycle, SegmentIsOpenedSizedMappedAndTheDescriptorClosed) {
    const CapturedLog log(LogLevel::Debug);
    auto ring = Open(2);
    EXPECT_THAT(Kernel().Calls(), ElementsAre(OpenCall(), "ftruncate(3, 1176)",
                                              "mmap(null, 1176, 3, 1, 3, 0)", "close(3)"));
    EXPECT_EQ(0, Kernel().OpenDescriptors());
    EXPECT_EQ(1, Kernel().Mappings());
    EXPECT_EQ(1176, Kernel().LengthOf(ObjectName()));

    Kernel().ForgetCalls();
    ring.reset();
    EXPECT_THAT(Kernel().Calls(), ElementsAre("munmap(address, 1176)"));
    EXPECT_EQ(0, Kernel().Mappings());
    EXPECT_TRUE(Kernel().Exists(ObjectName()));
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(SharedBufferLifecycle, EveryOpenerMakesTheSameCalls) {
    const auto first = Open(0, false, 4);
    const auto calls = Kernel().Calls();
    Kernel().ForgetCalls();
    const auto second = Open(1, true);
    EXPECT_EQ(calls, Kernel().Calls());
    EXPECT_EQ(2, Kernel().Mappings());
}

struct StepFailure {
    const char* call;
    const char* operation;
    unsigned line;
    const char* logText;
    const char* exceptionText;
    int callsMade;
};

class SharedBufferRefused : public SharedBufferLifecycle,
                            public testing::WithParamInterface<StepFailure> {
protected:
    void ExpectThrow() {
        try {
            Open(0);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(GetParam().exceptionText, error.what());
        }
    }
};

TEST_P(SharedBufferRefused, StepLogsNameMessageAndErrnoThenThrowsAndLeaksNothing) {
    Kernel().FailNth(GetParam().call, 1, ENOSPC);
    const CapturedLog log;
    ExpectThrow();

    ASSERT_EQ(1U, log.Records().size());
    const LogRecord& record = log.Records()[0];
    EXPECT_EQ("common/lib/SharedMemory/src/SharedBuffer", record.sourcePath);
    EXPECT_EQ(GetParam().operation, record.operation);
    EXPECT_EQ(GetParam().line, record.line);
    EXPECT_EQ(static_cast<LogLevel>(2), record.level);
    EXPECT_EQ(static_cast<LogCategory>(0x8010), record.category);
    EXPECT_EQ(Name() + GetParam().logText + std::to_string(ENOSPC), record.text);
    EXPECT_EQ(0, Kernel().Mappings());
    // Only a close that the system refused leaves its descriptor, and it is not tried again.
    EXPECT_EQ(std::string(GetParam().call) == "close" ? 1 : 0, Kernel().OpenDescriptors());
}

TEST_P(SharedBufferRefused, StepThrowsButLogsNothingWhenTheLevelIsDisabled) {
    Kernel().FailNth(GetParam().call, 1, ENOSPC);
    const CapturedLog log(LogLevel::Alert);
    ExpectThrow();
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_P(SharedBufferRefused, NothingIsTriedTwice) {
    Kernel().FailNth(GetParam().call, 1, EINTR);
    const CapturedLog log;
    ExpectThrow();
    EXPECT_EQ(GetParam().callsMade, static_cast<int>(Kernel().Calls().size()));
}

TEST_P(SharedBufferRefused, NextOpenerFindsTheSegmentUnharmed) {
    Kernel().FailNth(GetParam().call, 1, ENOMEM);
    {
        const CapturedLog log;
        ExpectThrow();
    }
    const auto ring = Open(0);
    EXPECT_EQ(kSize, Control().avail[0]);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, SharedBufferRefused,
    testing::Values(StepFailure{"shm_open", "OpenShm", 420,
                                " Problem Creating Shared memory segment - ",
                                "Exception: Problem Creating Shared memory segment", 1},
                    StepFailure{"ftruncate", "AllocateShm", 437,
                                " Problem Allocating Shared Memory - ",
                                "Exception: Problem Allocating Shared Memory", 3},
                    StepFailure{"mmap", "MapShm", 458, " Unable to map shared memory - ",
                                "Exception: Unable to map shared memory", 4},
                    StepFailure{"close", "CloseShm", 493, " Problem closing shared memory fd - ",
                                "Exception: Closing shared memory fd", 5}),
    [](const auto& row) { return row.param.operation; });

TEST_F(SharedBufferLifecycle, DescriptorIsClosedWhenSizingIsRefusedAndTheFirstErrnoIsLogged) {
    Kernel().FailNth("ftruncate", 1, ENOSPC);
    Kernel().FailNth("close", 1, EIO);
    const CapturedLog log;
    EXPECT_THROW(Open(0), std::runtime_error);
    EXPECT_THAT(Kernel().Calls(), ElementsAre(OpenCall(), "ftruncate(3, 1176)", "close(3)"));
    ASSERT_EQ(1U, log.Records().size());
    EXPECT_EQ(Name() + " Problem Allocating Shared Memory - 28", log.Records()[0].text);
}

TEST_F(SharedBufferLifecycle, DescriptorIsClosedWhenMappingIsRefusedAndTheFirstErrnoIsLogged) {
    Kernel().FailNth("mmap", 1, ENOMEM);
    Kernel().FailNth("close", 1, EIO);
    const CapturedLog log;
    EXPECT_THROW(Open(0), std::runtime_error);
    EXPECT_THAT(Kernel().Calls(), ElementsAre(OpenCall(), "ftruncate(3, 1176)",
                                              "mmap(null, 1176, 3, 1, 3, 0)", "close(3)"));
    ASSERT_EQ(1U, log.Records().size());
    EXPECT_EQ(Name() + " Unable to map shared memory - 12", log.Records()[0].text);
}

TEST_F(SharedBufferLifecycle, SegmentIsUnmappedWhenClosingIsRefused) {
    Kernel().FailNth("close", 1, EIO);
    const CapturedLog log;
    EXPECT_THROW(Open(0), std::runtime_error);
    EXPECT_THAT(Kernel().Calls(),
                ElementsAre(OpenCall(), "ftruncate(3, 1176)", "mmap(null, 1176, 3, 1, 3, 0)",
                            "close(3)", "munmap(address, 1176)"));
    EXPECT_EQ(0, Kernel().MemoryOf(ObjectName())[124]);  // initialising comes last
}

TEST_F(SharedBufferLifecycle, RefusedUnmappingIsLoggedAndNeverThrown) {
    auto ring = Open(0);
    Kernel().FailNth("munmap", 1, EINVAL);
    const CapturedLog log;
    ring.reset();
    ASSERT_EQ(1U, log.Records().size());
    const LogRecord& record = log.Records()[0];
    EXPECT_EQ("common/lib/SharedMemory/src/SharedBuffer", record.sourcePath);
    EXPECT_EQ("operator()", record.operation);
    EXPECT_EQ(473U, record.line);
    EXPECT_EQ(static_cast<LogLevel>(2), record.level);
    EXPECT_EQ(static_cast<LogCategory>(0x8010), record.category);
    EXPECT_EQ("Problem unmapping shared memory fd - 22", record.text);
}

TEST_F(SharedBufferLifecycle, RefusedUnmappingIsNotLoggedWhenTheLevelIsDisabled) {
    auto ring = Open(0);
    Kernel().FailNth("munmap", 1, EINVAL);
    const CapturedLog log(LogLevel::Alert);
    ring.reset();
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(SharedBufferLifecycle, NodeThatTheControlBlockHasNoRoomForIsRefusedBeforeAnySystemCall) {
    const struct {
        std::uint8_t node;
        bool sink;
        const char* text;
    } rows[] = {{5, true, "Exception: Node index 5 is not in 0 to 4"},
                {5, false, "Exception: Node index 5 is not in 0 to 4"},
                {255, true, "Exception: Node index 255 is not in 0 to 4"},
                {4, false, "Exception: Node index 4 is the last and must be the sink"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        try {
            Open(row.node, row.sink);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(row.text, error.what());
        }
    }
    EXPECT_THAT(Kernel().Calls(), IsEmpty());
    EXPECT_NO_THROW(Open(4, true));
    EXPECT_NO_THROW(Open(3, false));
}

/// A kernel that tells when it goes.
class MortalKernel : public FakeKernel {
public:
    explicit MortalKernel(std::vector<std::string>& lastCalls) : lastCalls_(lastCalls) {}
    ~MortalKernel() override { lastCalls_ = Calls(); }

private:
    std::vector<std::string>& lastCalls_;
};

TEST(SharedBufferOwnership, SystemCallsLiveUntilTheSegmentIsUnmapped) {
    std::vector<std::string> calls;
    auto kernel = std::make_shared<MortalKernel>(calls);
    auto ring =
        std::make_unique<SharedBuffer>(kernel, SharedBufferIF::BufferInfo{"own", 64, 0, false, 0});
    EXPECT_EQ(3, kernel.use_count());  // the test's, the buffer's and its deleter's
    kernel.reset();
    ring.reset();
    ASSERT_EQ(5U, calls.size());
    EXPECT_EQ("munmap(address, 216)", calls.back());
}

}  // namespace
}  // namespace qel::test
