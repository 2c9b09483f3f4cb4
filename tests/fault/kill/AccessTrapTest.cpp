#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <string>
#include <vector>

#include "AccessTrap.h"
#include "ChildProcess.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

constexpr std::size_t kLength = 4096;

/// A page that a forked process shares.
class SharedPage {
public:
    SharedPage()
        : start_(::mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                        0)) {}
    ~SharedPage() { ::munmap(start_, kLength); }
    SharedPage(const SharedPage&) = delete;
    SharedPage& operator=(const SharedPage&) = delete;

    [[nodiscard]] void* Start() const { return start_; }
    std::atomic<std::uint64_t>& operator[](std::size_t index) const {
        return static_cast<std::atomic<std::uint64_t>*>(start_)[index];
    }

private:
    void* start_;
};

class AccessTrapping : public testing::Test {
protected:
    void SetUp() override {
        if (const char* reason = AccessTrap::WhyNot()) {
            GTEST_SKIP() << reason;
        }
    }

    /// Accesses as "0w8": area, write or read, offset. A sanitizer may load twice what is loaded
    /// once.
    static std::vector<std::string> Texts(const AccessTrap::Record& record) {
        std::vector<std::string> texts;
        for (std::size_t index = 0; index < record.count; ++index) {
            const auto& access = record.accesses.at(index);
            const std::string text = std::to_string(access.area) + (access.isWrite ? "w" : "r") +
                                     std::to_string(access.offset);
            if (access.isWrite || texts.empty() || texts.back() != text) {
                texts.push_back(text);
            }
        }
        return texts;
    }

    SharedPage page_;
    AccessTrap::Record record_;
};

TEST_F(AccessTrapping, NotesEveryLoadStoreAndReadModifyWriteInOrder) {
    AccessTrap trap(record_);
    trap.Watch(page_.Start(), kLength, PROT_READ | PROT_WRITE);
    trap.Start();
    page_[0].store(5);
    (void)page_[2].load();
    page_[1].fetch_add(7);
    (void)page_[3].exchange(9);
    trap.Stop();
    EXPECT_THAT(Texts(record_), ElementsAre("0w0", "0r16", "0w8", "0w24"));
    EXPECT_EQ(page_[1].load(), 7U);
}

TEST_F(AccessTrapping, NotesNothingWhileItIsOff) {
    AccessTrap trap(record_);
    trap.Watch(page_.Start(), kLength, PROT_READ | PROT_WRITE);
    page_[0].store(5);
    trap.Start();
    trap.Stop();
    page_[0].store(6);
    EXPECT_EQ(record_.count, 0U);
}

TEST_F(AccessTrapping, AreasAreToldApart) {
    const SharedPage other;
    AccessTrap trap(record_);
    trap.Watch(page_.Start(), kLength, PROT_READ | PROT_WRITE);
    trap.Start();
    trap.Watch(other.Start(), kLength, PROT_READ | PROT_WRITE);
    other[1].store(1);
    page_[1].store(1);
    trap.Forget(page_.Start());
    page_[2].store(1);
    trap.Stop();
    EXPECT_THAT(Texts(record_), ElementsAre("1w8", "0w8"));
}

TEST_F(AccessTrapping, KillsRightAfterTheAskedAccess) {
    for (const std::uint64_t kill : {1U, 2U, 3U}) {
        for (std::size_t word = 0; word < 4; ++word) {
            page_[word].store(0);
        }
        ChildProcess child([&](const Conversation&) {
            AccessTrap trap(record_);
            trap.Watch(page_.Start(), kLength, PROT_READ | PROT_WRITE);
            trap.Start(kill);
            for (std::size_t word = 0; word < 4; ++word) {
                page_[word].store(1);
            }
            return 0;
        });
        const int status = child.Wait();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        for (std::size_t word = 0; word < 4; ++word) {
            EXPECT_EQ(page_[word].load(), word < kill ? 1U : 0U) << "killed after " << kill;
        }
    }
}

TEST_F(AccessTrapping, RunsAnActionOnceAfterTheAskedAccess) {
    std::uint64_t count = 0;
    AccessTrap trap(record_);
    trap.Watch(page_.Start(), kLength, PROT_READ | PROT_WRITE);
    trap.StartWithAction(
        2, [](void* argument) { ++*static_cast<std::uint64_t*>(argument); }, &count);
    page_[0].store(1);
    EXPECT_EQ(count, 0U);
    page_[0].store(2);
    page_[0].store(3);
    trap.Stop();
    EXPECT_EQ(count, 1U);
}

TEST_F(AccessTrapping, OwnersProtectionHoldsAsWithoutTheTrap) {
    page_[0].store(5);
    ASSERT_EQ(::mprotect(page_.Start(), kLength, PROT_READ), 0);
    ChildProcess child([&](const Conversation&) {
        ::signal(SIGSEGV, SIG_DFL);  // a sanitizer's handler would tell of the fault
        AccessTrap trap(record_);
        trap.Watch(page_.Start(), kLength, PROT_READ | PROT_WRITE);
        trap.Start();
        trap.Protect(page_.Start(), PROT_READ);
        if (page_[0].load() != 5) {
            return 1;
        }
        page_[0].store(6);
        return 2;
    });
    const int status = child.Wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV);
    EXPECT_EQ(page_[0].load(), 5U);
}

}  // namespace
}  // namespace qel::test
