// A process that constructs a block is killed after every single access to the lock file's mapping
// and to the memory's.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <memory>
#include <new>

#include "BlockTable.h"
#include "DeathTable.h"
#include "LongForm.h"
#include "Stage.h"

namespace qel::test {
namespace {

constexpr std::uint32_t kLockFile = 0;  // is mapped first
constexpr std::uint64_t kRecordOffset = 8;
constexpr std::uint64_t kRecordLength = 32;

/// What a forked process notes of its accesses, seen by this one.
class SharedRecord {
public:
    SharedRecord()
        : place_(::mmap(nullptr, sizeof(AccessTrap::Record), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (place_ == MAP_FAILED) {
            throw std::bad_alloc();
        }
        new (place_) AccessTrap::Record;
    }
    ~SharedRecord() { ::munmap(place_, sizeof(AccessTrap::Record)); }
    SharedRecord(const SharedRecord&) = delete;
    SharedRecord& operator=(const SharedRecord&) = delete;

    [[nodiscard]] AccessTrap::Record& Get() const {
        return *static_cast<AccessTrap::Record*>(place_);
    }

private:
    void* place_;
};

bool WritesRecord(const AccessTrap::Access& access) {
    return access.area == kLockFile && access.isWrite && access.offset >= kRecordOffset;
}

/// What has been done once the access of that number is made, which does not write the record.
std::string StepOfAccess(const AccessTrap::Record& record, std::uint64_t number) {
    const AccessTrap::Access& access = record.accesses.at(number - 1);
    if (!access.isWrite) {
        return access.area == kLockFile ? "reading the record" : "reading the memory";
    }
    if (access.area == kLockFile) {
        return "the record's flag";
    }
    return number == record.count ? "the uid" : "clearing the memory";
}

class AConstructor : public ::testing::TestWithParam<Scene> {
protected:
    void SetUp() override {
        if (const char* const reason = AccessTrap::WhyNot()) {
            GTEST_SKIP() << reason;
        }
        Stage(GetParam()).RehearseAccesses(accesses_.Get());
        ASSERT_LT(accesses_.Get().count, AccessTrap::Record::kMost);
        ASSERT_GT(accesses_.Get().count, 0U);
    }

    [[nodiscard]] const AccessTrap::Record& Accesses() const { return accesses_.Get(); }

    static Outcome OutcomeAfter(std::uint64_t accesses) {
        Stage stage(GetParam());
        stage.Kill({Moment::Kind::AfterAccess, "", static_cast<int>(accesses)});
        return stage.Look();
    }
    /// The same with only `length` bytes of the record there. Death comes when all are.
    static Outcome OutcomeOfPart(std::uint64_t accesses, std::size_t length) {
        Stage stage(GetParam());
        stage.Kill({Moment::Kind::AfterAccess, "", static_cast<int>(accesses)});
        stage.KeepOfRecord(length);
        return stage.Look();
    }
    /// Adds the deaths while the accesses from `first` to `last` write the record: one after each
    /// of its bytes, as another machine may copy it, and those after the copying of this one.
    static void AddRecord(DeathRows& rows, std::uint64_t first, std::uint64_t last) {
        // In the short form: a part of each field, and whole ones.
        const std::size_t more = IsLongForm() ? 1 : 3;
        for (std::size_t length = 1; length < kRecordLength; length += more) {
            SCOPED_TRACE("bytes of the record: " + std::to_string(length));
            rows.Add("a part of the record", OutcomeOfPart(last, length));
        }
        for (std::uint64_t access = first; access <= last; ++access) {
            const Outcome outcome = OutcomeAfter(access);
            const bool isWhole = access == last || outcome.left == Stage::kNewRecord;
            rows.Add(isWhole ? "all of the record" : "a part of the record", outcome);
        }
    }

private:
    SharedRecord accesses_;
};

TEST_P(AConstructor, KilledAfterAnyAccessLeavesWhatIsPublished) {
    DeathRows rows;
    for (std::uint64_t access = 1; access <= Accesses().count; ++access) {
        SCOPED_TRACE("access " + std::to_string(access));
        if (!WritesRecord(Accesses().accesses.at(access - 1))) {
            rows.Add(StepOfAccess(Accesses(), access), OutcomeAfter(access));
            continue;
        }
        const std::uint64_t first = access;
        while (WritesRecord(Accesses().accesses.at(access))) {
            ++access;
        }
        AddRecord(rows, first, access);
    }
    rows.ExpectPublished(BlockTable(), TitleOfAccesses(GetParam().title));
}

INSTANTIATE_TEST_SUITE_P(While, AConstructor, ::testing::ValuesIn(TouchingScenes()),
                         [](const auto& scene) { return scene.param.name; });

}  // namespace
}  // namespace qel::test
