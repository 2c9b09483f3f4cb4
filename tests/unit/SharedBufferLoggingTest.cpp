// How the ring uses the logging interface. This program brings a logger of its own in the place of
// the library's, as a host system may, so that every question and every record can be seen.

#include <gmock/gmock.h>

#include <cerrno>
#include <deque>
#include <sstream>
#include <stdexcept>

#include "FakeKernel.h"
#include "LogClient.h"
#include "SharedBuffer.h"

namespace qel {
namespace {

/// What the logger was asked and told, and what it answers.
struct Journal {
    std::vector<std::string> entries;
    std::deque<bool> answers;  // to LevelIsEnabled; then true
    bool recordsThrow = false;
};
Journal* journal = nullptr;

}  // namespace

class LogClient::Impl {
public:
    std::string head;
    std::ostringstream stream;
};

bool LogClient::LevelIsEnabled(LogLevel level) noexcept {
    bool answer = true;
    if (!journal->answers.empty()) {
        answer = journal->answers.front();
        journal->answers.pop_front();
    }
    journal->entries.push_back("enabled? " + std::to_string(static_cast<int>(level)));
    return answer;
}

LogClient::LogClient(std::string_view sourcePath, std::string_view operation, unsigned line,
                     LogLevel level, LogCategory category)
    : impl_(std::make_unique<Impl>()) {
    if (journal->recordsThrow) {
        throw std::runtime_error("no record");
    }
    errno = EDOM;  // a logger may change it
    impl_->head = std::string(sourcePath) + " " + std::string(operation) + " " +
                  std::to_string(line) + " " + std::to_string(static_cast<int>(level)) + " " +
                  std::to_string(static_cast<unsigned>(category)) + " ";
}

LogClient::~LogClient() {
    journal->entries.push_back(impl_->head + impl_->stream.str());
}

std::ostream& LogClient::Stream() noexcept {
    return impl_->stream;
}

namespace test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SharedBufferLogging : public testing::Test {
public:
    ~SharedBufferLogging() override { journal = nullptr; }

protected:
    SharedBufferLogging() { journal = &journal_; }

    std::unique_ptr<SharedBuffer> Open() {
        return std::make_unique<SharedBuffer>(kernel_,
                                              SharedBufferIF::BufferInfo{"log", 1024, 1, false, 0});
    }

    Journal journal_;
    std::shared_ptr<FakeKernel> kernel_ = std::make_shared<FakeKernel>();
};

TEST_F(SharedBufferLogging, LevelIsAskedBeforeARefusedStepIsRecorded) {
    kernel_->FailNth("shm_open", 1, EACCES);
    EXPECT_THROW(Open(), std::runtime_error);
    EXPECT_THAT(journal_.entries,
                ElementsAre("enabled? 2",
                            "common/lib/SharedMemory/src/SharedBuffer OpenShm 420 2 32784 log "
                            "Problem Creating Shared memory segment - 13"));
}

TEST_F(SharedBufferLogging, DisabledLevelMakesNoRecord) {
    for (const char* const call : {"shm_open", "ftruncate", "mmap", "close"}) {
        kernel_->FailNth(call, 1, EACCES);
        journal_.entries.clear();
        journal_.answers = {false};
        EXPECT_THROW(Open(), std::runtime_error);
        EXPECT_THAT(journal_.entries, ElementsAre("enabled? 2"));
    }
}

TEST_F(SharedBufferLogging, RefusedUnmappingAsksFirstToo) {
    auto ring = Open();
    kernel_->FailNth("munmap", 1, EINVAL);
    ring.reset();
    EXPECT_THAT(journal_.entries,
                ElementsAre("enabled? 2",
                            "common/lib/SharedMemory/src/SharedBuffer operator() 473 2 32784 "
                            "Problem unmapping shared memory fd - 22"));

    ring = Open();
    kernel_->FailNth("munmap", 1, EINVAL);
    journal_.entries.clear();
    journal_.answers = {false};
    ring.reset();
    EXPECT_THAT(journal_.entries, ElementsAre("enabled? 2"));
}

TEST_F(SharedBufferLogging, LoggerThatThrowsDoesNotEscapeFromUnmapping) {
    auto ring = Open();
    kernel_->FailNth("munmap", 1, EINVAL);
    journal_.recordsThrow = true;
    EXPECT_NO_THROW(ring.reset());
    EXPECT_THAT(journal_.entries, ElementsAre("enabled? 2"));
}

TEST_F(SharedBufferLogging, PrintAsksTwiceAndWritesOnce) {
    const auto ring = Open();
    ring->Print(LogLevel::Notice);
    ASSERT_EQ(3U, journal_.entries.size());
    EXPECT_EQ("enabled? 5", journal_.entries[0]);
    EXPECT_EQ("enabled? 5", journal_.entries[1]);
    EXPECT_THAT(journal_.entries[2],
                testing::StartsWith("common/lib/SharedMemory/src/SharedBuffer DoPrint 568 5 32784  "
                                    "{log} my node index 1\n"));
}

TEST_F(SharedBufferLogging, LevelDisabledWhileTheTextIsBuiltLosesTheText) {
    const auto ring = Open();
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadData(9999, 0).status);
    journal_.answers = {true, false};
    ring->Print(LogLevel::Notice);
    EXPECT_THAT(journal_.entries, ElementsAre("enabled? 5", "enabled? 5"));

    journal_.entries.clear();
    ring->Print(LogLevel::Notice);
    EXPECT_THAT(journal_.entries.at(2), HasSubstr(" Error String: \n"));
}

TEST_F(SharedBufferLogging, LevelDisabledFromTheStartKeepsTheText) {
    const auto ring = Open();
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadData(9999, 0).status);
    journal_.answers = {false};
    ring->Print(LogLevel::Notice);
    EXPECT_THAT(journal_.entries, ElementsAre("enabled? 5"));

    journal_.entries.clear();
    ring->Print(LogLevel::Notice);
    EXPECT_THAT(journal_.entries.at(2), HasSubstr(" Error String: DoReadData log Invalid"));
}

TEST_F(SharedBufferLogging, NoOperationButPrintTouchesTheLogger) {
    const auto ring = Open();
    std::vector<unsigned char> header(26);
    (void)ring->WriteHeaderPayload(header, {}, false);
    (void)ring->WriteHeaderPayload(header, {}, true);
    (void)ring->WriteHeaderSkipPayload(header, 2000);
    (void)ring->ReadHeader(26);
    (void)ring->ReadPayload(9999);
    (void)ring->ReadData(9999, 9999);
    (void)ring->ReleaseData(9999, 9999);
    (void)ring->GetCurrentCapacity();
    EXPECT_THAT(journal_.entries, IsEmpty());
}

}  // namespace
}  // namespace test
}  // namespace qel
