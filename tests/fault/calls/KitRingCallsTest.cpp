// Rings that the pipeline kit opens and makes, with system calls refused.

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>

#include "KitScenario.h"
#include "RingObject.h"

namespace qel::test {
namespace {

class Opening : public KitScenario {
public:
    Opening(const World& world, int waiting) : KitScenario(world), waiting_(waiting) {}

    void Prepare() override {
        if (waiting_ == 0) {
            return;
        }
        const auto writer = Open(0);
        for (int packet = 0; packet < waiting_; ++packet) {
            WriteOne(*writer);
        }
    }
    std::string Run() override {
        ring_ = Open(0);
        return "opened";
    }
    void Destroy() override { ring_.reset(); }
    void Again() override {
        WriteOne(*Open(0));
        EXPECT_EQ(Drain(), waiting_ + 1);
    }

private:
    int waiting_;
    std::unique_ptr<SharedPacketBufferIF> ring_;
};

/// A step of the library's own, of which the kit only knows the status.
Outcome LibraryFails(const std::string& step, int line, const std::string& text,
                     const std::string& logged) {
    return Object(
        Throws("ring {RING}: cannot open it: SHARED_MEMORY_FAILURE")
            .Prints("Trouble creating shared memory invalid parameter: Exception: " + text + "\n")
            .LogsOfRing(step, line, "{RING} " + logged + " - {errno}"),
        kFullObject);
}

std::vector<Row> LibraryRows(const Outcome& success) {
    return {
        At("shm_open(/RING.shm, 66, 438)",
           LibraryFails("OpenShm", 420, "Problem Creating Shared memory segment",
                        "Problem Creating Shared memory segment")),
        At("ftruncate(RING, 4248)",
           LibraryFails("AllocateShm", 437, "Problem Allocating Shared Memory",
                        "Problem Allocating Shared Memory")),
        At("mmap(4248, 3, 1, RING, 0)", LibraryFails("MapShm", 458, "Unable to map shared memory",
                                                     "Unable to map shared memory")),
        At("close(RING)", LibraryFails("CloseShm", 493, "Closing shared memory fd",
                                       "Problem closing shared memory fd"))
            .Nth(1),
        At("close(RING)", success).Nth(2),
        At("munmap(4248)",
           success.LogsOfRing("operator()", 473, "Problem unmapping shared memory fd - {errno}")),
    };
}

/// @param before  what there is of the object ahead of everything
/// @param opened  when it has only been opened, and when it could not be given its memory
Table OpeningTable(const std::string& before, const std::string& opened,
                   const std::string& withoutMemory) {
    const auto success = Object(Returns("opened"), kFullObject);
    Table table{success,
                LibraryRows(success),
                {"flock(RING, 2)", "posix_fallocate(RING, 0, 4248)"},
                {},
                true};
    table.rows.push_back(At("shm_open(/RING.shm, 526402, 438)", Object(RingFails("open"), before)));
    table.rows.push_back(At("flock(RING, 2)", Object(RingFails("lock"), opened)));
    table.rows.push_back(At("fstat(RING)", Object(RingFails("look at"), opened)));
    table.rows.push_back(At("posix_fallocate(RING, 0, 4248)",
                            Object(RingFails("reserve 4248 bytes for"), withoutMemory)));
    return table;
}

TEST(RefusedCallsOfTheKit, WhenARingIsOpenedFirst) {
    ExploreDirectCalls(Make<Opening>(0),
                       OpeningTable("no object", "object of 0 bytes", "no object"));
}

TEST(RefusedCallsOfTheKit, WhenARingIsOpenedThatIsThere) {
    ExploreDirectCalls(Make<Opening>(3), OpeningTable(kFullObject, kFullObject, kFullObject));
}

/// An object that is made, and removed by an operation or by its end.
class MakingObject : public KitScenario {
public:
    MakingObject(const World& world, bool removes) : KitScenario(world), removes_(removes) {}

    std::string Run() override {
        object_.emplace(names_.ring.Name(), kSize);
        if (removes_) {
            object_->Remove();
        }
        return "made";
    }
    void Destroy() override { object_.reset(); }
    void Again() override {
        if (RingObject::FindSize(names_.ring.Name())) {
            RingObject::Unlink(names_.ring.Name());
        }
        RingObject object(names_.ring.Name(), kSize);
        WriteOne(*Open(0));
        EXPECT_EQ(Drain(), 1);
        object.Remove();
        EXPECT_EQ(State(), "no object");
    }

private:
    bool removes_;
    std::optional<RingObject> object_;
};

constexpr const char* kMake = "shm_open(/RING.shm, 526530, 438)";
constexpr const char* kLook = "shm_open(/RING.shm, 526336, 438)";
constexpr const char* kRoom = "posix_fallocate(RING, 0, 4248)";
constexpr const char* kUnlink = "shm_unlink(/RING.shm)";

std::vector<Row> MakingRows() {
    return {At(kMake, Object(RingFails("create"), "no object")),
            At(kRoom, Object(RingFails("reserve 4248 bytes for"), "no object")),
            At("fstat(RING)", Object(RingFails("look at"), "no object")).Nth(1)};
}

TEST(RefusedCallsOfTheKit, WhenAnObjectIsMadeAndRemoved) {
    Table table{Object(Returns("made"), "no object"),
                MakingRows(),
                {kRoom},
                {"close(RING)", "close(RING (deleted))"},
                true};
    table.rows.push_back(At(kLook, Object(RingFails("remove"), kFullObject)));
    table.rows.push_back(At(kLook, Object(Returns("made"), kFullObject)).For({ENOENT}));
    table.rows.push_back(At("fstat(RING)", Object(RingFails("look at"), kFullObject)).Nth(2));
    table.rows.push_back(At(kUnlink, Object(RingFails("remove"), kFullObject)));
    ExploreDirectCalls(Make<MakingObject>(true), table);
}

TEST(RefusedCallsOfTheKit, WhenAnObjectEndsThatIsRemovedWithItsMaker) {
    const auto stays = Returns("made").State(kFullObject).Left(kFullObject);
    Table table{Returns("made").State(kFullObject).Left("no object"),
                MakingRows(),
                {kRoom},
                {"close(RING)", "close(RING (deleted))"}};
    table.rows.push_back(At(kLook, stays));
    table.rows.push_back(At("fstat(RING)", stays).Nth(2));
    table.rows.push_back(At(kUnlink, stays));
    ExploreDirectCalls(Make<MakingObject>(false), table);
}

/// An object that somebody else has made, looked up or removed.
class Finding : public KitScenario {
public:
    Finding(const World& world, bool unlinks) : KitScenario(world), unlinks_(unlinks) {}

    void Prepare() override { WriteOne(*Open(0)); }
    std::string Run() override {
        if (unlinks_) {
            RingObject::Unlink(names_.ring.Name());
            return "removed";
        }
        const auto size = RingObject::FindSize(names_.ring.Name());
        return size ? "size " + std::to_string(*size) : "none";
    }
    void Again() override {
        const bool isThere = State() == kFullObject;
        EXPECT_EQ(Drain(), isThere ? 1 : 0);
    }

private:
    bool unlinks_;
};

TEST(RefusedCallsOfTheKit, WhenAnObjectIsLookedUp) {
    ExploreDirectCalls(Make<Finding>(false),
                       {Object(Returns("size 4096"), kFullObject),
                        {At(kLook, Object(RingFails("open"), kFullObject)),
                         At(kLook, Object(Returns("none"), kFullObject)).For({ENOENT}),
                         At("fstat(RING)", Object(RingFails("look at"), kFullObject))},
                        {},
                        {"close(RING)"}});
}

TEST(RefusedCallsOfTheKit, WhenAnObjectIsUnlinked) {
    ExploreDirectCalls(Make<Finding>(true),
                       {Object(Returns("removed"), "no object"),
                        {At(kUnlink, Object(RingFails("remove"), kFullObject))},
                        {},
                        {}});
}

}  // namespace
}  // namespace qel::test
