// Objects that are made and used while memory is short: every allocation fails once, and from then
// on. Replaces the allocation functions of the program.

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <new>
#include <streambuf>

#include "Explorer.h"
#include "Files.h"
#include "LogControl.h"
#include "NamedSemaphore.h"
#include "ProcessState.h"
#include "RunCount.h"
#include "SemaphoreMultiLockHelper.h"
#include "SharedMemLibFactory.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "Sys.h"

namespace {

/// Plain data: the allocation functions run before and after the life of every C++ object.
struct Shortage {
    bool counts;
    int allocations;
    int first;  ///< the allocation that fails, 0 for none
    bool lasts;
};
thread_local Shortage shortage{};

bool IsShort() {
    if (!shortage.counts) {
        return false;
    }
    const int now = ++shortage.allocations;
    return now == shortage.first || (shortage.lasts && shortage.first != 0 && now > shortage.first);
}

}  // namespace

void* operator new(std::size_t size) {
    if (void* const memory = IsShort() ? nullptr : std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace qel::test {
namespace {

/// Takes standard output without a single allocation.
class NoOutput : private std::streambuf {
public:
    NoOutput() : before_(std::cout.rdbuf(this)) {}
    ~NoOutput() override { std::cout.rdbuf(before_); }
    NoOutput(const NoOutput&) = delete;
    NoOutput& operator=(const NoOutput&) = delete;

private:
    int_type overflow(int_type character) override { return traits_type::not_eof(character); }
    std::streamsize xsputn(const char* /*bytes*/, std::streamsize length) override {
        return length;
    }

    std::streambuf* before_;
};

/// What a use of the library may say when memory is short.
struct Use {
    std::function<void(const Names&)> prepare;
    std::function<void(const Names&)> run;
    std::vector<std::string> texts;  ///< of exceptions, beside std::bad_alloc
};

/// Does `run` with `first` failing; what it throws, empty for nothing.
std::string Failure(const Use& use, const Names& names, int first, bool lasts, int& allocations) {
    const NoOutput silent;
    std::string text;
    text.reserve(1000);
    shortage = {true, 0, first, lasts};
    try {
        use.run(names);
    } catch (const std::exception& error) {
        shortage.counts = false;
        text = error.what();
    }
    shortage.counts = false;
    allocations = shortage.allocations;
    return text;
}

class ShortMemory : public ::testing::Test {
protected:
    void SetUp() override {
        LogControl::SetSink([](const LogRecord& /*record*/) {});
    }
    void TearDown() override { LogControl::SetSink({}); }

    /// `use` throws std::bad_alloc or one of its texts, or succeeds; it leaves nothing behind, and
    /// succeeds afterwards.
    static void Explore(const Use& use) {
        int all = 0;
        {
            const Names names;
            use.prepare(names);
            ASSERT_EQ(Failure(use, names, 0, false, all), "");
        }
        ASSERT_GT(all, 0);
        int failed = 0;
        for (int first = 1; first <= all; ++first) {
            for (const bool lasts : {false, true}) {
                SCOPED_TRACE("allocation " + std::to_string(first) + " of " + std::to_string(all) +
                             (lasts ? " and all later ones" : ""));
                failed += RunShort(use, first, lasts);
            }
        }
        EXPECT_GT(failed, 0) << "no allocation mattered";
    }

private:
    static bool RunShort(const Use& use, int first, bool lasts) {
        const Names names;
        use.prepare(names);
        const int descriptors = HoldingsOf("").descriptors;
        const Holdings ring = HoldingsOf(names.ring.Name());
        const Holdings block = HoldingsOf(names.block.Name());
        const Holdings semaphore = HoldingsOf(names.semaphore.Name().substr(1));
        CountRun();
        int allocations = 0;
        const std::string text = Failure(use, names, first, lasts, allocations);
        EXPECT_TRUE(text.empty() || text == "std::bad_alloc" || IsOneOf(text, use.texts)) << text;
        EXPECT_EQ(HoldingsOf("").descriptors, descriptors);
        EXPECT_EQ(HoldingsOf(names.ring.Name()), ring);
        EXPECT_EQ(HoldingsOf(names.block.Name()), block);
        EXPECT_EQ(HoldingsOf(names.semaphore.Name().substr(1)), semaphore);
        if (::access(names.block.LockPath().c_str(), F_OK) == 0) {
            EXPECT_EQ(LockOn(names.block.LockPath()), Held::No);
        }
        EXPECT_EQ(Failure(use, names, 0, false, allocations), "") << "when there is memory again";
        return !text.empty();
    }
    static bool IsOneOf(const std::string& text, const std::vector<std::string>& beginnings) {
        for (const std::string& beginning : beginnings) {
            if (text.rfind(beginning, 0) == 0) {
                return true;
            }
        }
        return false;
    }
};

void NoPreparation(const Names& /*names*/) {}

constexpr std::uint64_t kSize = 1000;

TEST_F(ShortMemory, LeavesNothingBehindWhereARingIsAskedFor) {
    Explore({NoPreparation,
             [](const Names& names) {
                 const auto result = SharedMemLibFactory::Create()->GetSharedPacketBuffer(
                     {names.ring.Name(), kSize, 0, false, 4});
                 if (result.buffer == nullptr) {
                     throw std::runtime_error(
                         result.status == SMStatusCode::SHARED_MEMORY_FAILURE ? "refused" : "?");
                 }
             },
             {"refused"}});
}

/// A lock file that cannot be opened for want of memory is reported as such, whatever errno is.
const std::vector<std::string> kLockFileTexts = {"LockFile could not be opened"};

TEST_F(ShortMemory, LeavesNothingBehindWhereABlockIsCreated) {
    Explore({NoPreparation,
             [](const Names& names) {
                 SharedMemoryBlockWriter writer(std::make_shared<Sys>(), names.block.Name(), kSize);
                 writer.LockForWrite();
                 writer.UnlockForWrite();
             },
             kLockFileTexts});
}

std::unique_ptr<SharedMemoryBlockWriter> creator;

TEST_F(ShortMemory, LeavesNothingBehindWhereABlockIsOpenedAndRead) {
    Explore({[](const Names& names) {
                 creator = std::make_unique<SharedMemoryBlockWriter>(std::make_shared<Sys>(),
                                                                     names.block.Name(), kSize);
             },
             [](const Names& names) {
                 SharedMemoryBlockReader reader(std::make_shared<Sys>(), names.block.Name());
                 reader.Lock();
                 reader.Unlock();
             },
             kLockFileTexts});
    creator.reset();
}

TEST_F(ShortMemory, LeavesNothingBehindWhereASemaphoreIsUsed) {
    Explore({NoPreparation,
             [](const Names& names) {
                 NamedSemaphore semaphore(names.semaphore.Name(), 3);
                 semaphore.TimedWait(std::chrono::hours(1));
                 SemaphoreMultiLockHelper both{semaphore, 2};
                 both.Lock();
                 both.Unlock();
                 EXPECT_EQ(semaphore.GetValue(), 2);
             },
             {}});
}

}  // namespace
}  // namespace qel::test
