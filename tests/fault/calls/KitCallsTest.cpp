// The rest of the pipeline kit with system calls refused: claims, pages, leftovers, semaphores.

#include <gtest/gtest.h>
#include <semaphore.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>

#include "HandOnLeftovers.h"
#include "KitScenario.h"
#include "NodeClaim.h"
#include "PopulateRing.h"
#include "SystemSemaphore.h"

namespace qel::test {
namespace {

class Claiming : public KitScenario {
public:
    using KitScenario::KitScenario;

    void Prepare() override { WriteOne(*Open(0)); }
    std::string Run() override {
        claim_.emplace(names_.ring.Name(), 1);
        return "claimed";
    }
    void Destroy() override { claim_.reset(); }
    void Again() override {
        EXPECT_NO_THROW((void)NodeClaim(names_.ring.Name(), 1));
        EXPECT_EQ(Drain(), 1);
    }

private:
    std::optional<NodeClaim> claim_;
};

TEST(RefusedCallsOfTheKit, WhenANodeIsClaimed) {
    const std::string lock = "fcntl(RING, 37)";
    ExploreDirectCalls(
        Make<Claiming>(),
        {Object(Returns("claimed"), kFullObject),
         {At("shm_open(/RING.shm, 526338, 438)", Object(RingFails("open"), kFullObject)),
          At(lock, Object(RingFails("claim node 1 of"), kFullObject)),
          At(lock, Object(Throws("ring {RING}: node 1 is taken by another process or element",
                                 "qel::NodeTaken"),
                          kFullObject))
              .For({EACCES, EAGAIN})},
         {},
         {"close(RING)"}});
}

class Populating : public KitScenario {
public:
    using KitScenario::KitScenario;

    void Prepare() override {
        ring_ = Open(0);
        WriteOne(*ring_);
    }
    std::string Run() override {
        PopulateRing(*ring_, kSize);
        return "populated";
    }
    void Again() override { EXPECT_EQ(Drain(), 1); }

private:
    std::unique_ptr<SharedPacketBufferIF> ring_;
};

TEST(RefusedCallsOfTheKit, WhenTheMemoryOfARingIsPopulated) {
    const auto success = Object(Returns("populated"), kFullObject);
    ExploreDirectCalls(
        Make<Populating>(),
        {success,
         {At("madvise(4248, 23)",
             Object(Throws("ring {RING}: cannot populate 4096 bytes: {errno}({strerror})",
                           "qel::RingError"),
                    kFullObject)),
          At("madvise(4248, 23)", success).For({EINVAL})},  // as kernels before 5.14 do
         {},
         {}});
}

/// A sink that was killed has left one packet of three behind.
class HandingOn : public KitScenario {
public:
    using KitScenario::KitScenario;

    void Prepare() override {
        const auto writer = Open(0);
        for (int packet = 0; packet < 3; ++packet) {
            WriteOne(*writer);
        }
        EXPECT_EQ(Open(1)->ReadNextPacket().status, SMStatusCode::SUCCESS);
        successor_ = Open(1);
    }
    std::string Run() override {
        return std::to_string(HandOnLeftovers(*successor_, Info(1))) + " handed on";
    }
    [[nodiscard]] bool CanRecover() const override { return true; }
    void Again() override {
        EXPECT_LE(HandOnLeftovers(*successor_, Info(1)), 1U);
        EXPECT_EQ(HandOnLeftovers(*successor_, Info(1)), 0U);
        EXPECT_EQ(Drain(), 2);
    }

private:
    std::unique_ptr<SharedPacketBufferIF> successor_;
};

TEST(RefusedCallsOfTheKit, WhenLeftoversAreHandedOn) {
    ExploreDirectCalls(
        Make<HandingOn>(),
        {Object(Returns("1 handed on"), kFullObject),
         {At("shm_open(/RING.shm, 526336, 438)", Object(RingFails("open"), kFullObject)),
          At("fstat(RING)", Object(RingFails("look at"), kFullObject)),
          At("mmap(152, 1, 1, RING, 0)", Object(RingFails("map"), kFullObject))},
         {},
         {"close(RING)", "munmap(152)"}});
}

using Use = std::function<std::string(const SystemSemaphore&)>;

/// Something done with a semaphore that has one unit.
class UsingSemaphore : public Scenario {
public:
    UsingSemaphore(const World& world, Use use) : Scenario(world), use_(std::move(use)) {}

    void Prepare() override { SystemSemaphore(Name(), SystemSemaphore::IfMissing::Create).Post(); }
    std::string Run() override {
        if (!semaphore_) {
            semaphore_.emplace(Name(), SystemSemaphore::IfMissing::Create);
        }
        return use_(*semaphore_);
    }
    std::string State() override {
        return std::to_string(SystemSemaphore(Name(), SystemSemaphore::IfMissing::Refuse).Value());
    }
    std::string Left() override { return State(); }
    [[nodiscard]] bool CanRecover() const override { return true; }
    void Destroy() override { semaphore_.reset(); }
    void Again() override {
        const SystemSemaphore semaphore(Name(), SystemSemaphore::IfMissing::Refuse);
        semaphore.Post();
        EXPECT_TRUE(semaphore.TryTake());
    }

private:
    [[nodiscard]] std::string Name() const { return names_.semaphore.Name().substr(1); }

    Use use_;
    std::optional<SystemSemaphore> semaphore_;
};

/// @param after  the value when all goes well
Table SemaphoreTable(const std::string& result, const std::string& after, std::vector<Row> rows,
                     const std::vector<std::string>& retried) {
    rows.push_back(
        At("sem_open(/SEMAPHORE, 64, 384, 0)",
           Object(Throws("cannot open semaphore {SEMAPHORE}: {errno}({strerror})"), "1")));
    return {Object(Returns(result), after),
            std::move(rows),
            retried,
            {"stat(/dev/shm/sem.SEMAPHORE)", "sem_close()"}};
}

Outcome CannotDo(const std::string& what) {
    return Object(Throws("cannot " + what + " semaphore {SEMAPHORE}: {errno}({strerror})"), "1");
}

void ExploreSemaphore(const Use& use, const Table& table) {
    ExploreDirectCalls(Make<UsingSemaphore>(use), table);
}

TEST(RefusedCallsOfTheKit, WhenASemaphoreIsLookedAt) {
    ExploreSemaphore(
        [](const SystemSemaphore& semaphore) { return std::to_string(semaphore.Value()); },
        SemaphoreTable("1", "1", {At("sem_getvalue()", CannotDo("look at"))}, {}));
}

TEST(RefusedCallsOfTheKit, WhenASemaphoreIsPosted) {
    ExploreSemaphore(
        [](const SystemSemaphore& semaphore) {
            semaphore.Post();
            return "posted";
        },
        SemaphoreTable("posted", "2", {At("sem_post()", CannotDo("post to"))}, {}));
}

TEST(RefusedCallsOfTheKit, WhenASemaphoreIsSignalled) {
    ExploreSemaphore(
        [](const SystemSemaphore& semaphore) {
            (void)semaphore.TryTake();
            semaphore.Signal();
            return "signalled";
        },
        SemaphoreTable("signalled", "1",
                       {At("sem_trywait()", CannotDo("take from")),
                        At("sem_trywait()", Object(Returns("signalled"), "1")).For({EAGAIN}),
                        At("sem_getvalue()", Object(CannotDo("look at"), "0")),
                        At("sem_post()", Object(CannotDo("post to"), "0"))},
                       {"sem_trywait()"}));
}

TEST(RefusedCallsOfTheKit, WhenASemaphoreIsTried) {
    ExploreSemaphore(
        [](const SystemSemaphore& semaphore) { return semaphore.TryTake() ? "taken" : "none"; },
        SemaphoreTable("taken", "0",
                       {At("sem_trywait()", CannotDo("take from")),
                        At("sem_trywait()", Object(Returns("none"), "1")).For({EAGAIN})},
                       {"sem_trywait()"}));
}

TEST(RefusedCallsOfTheKit, WhenASemaphoreIsTakenWithALimit) {
    ExploreSemaphore(
        [](const SystemSemaphore& semaphore) {
            return semaphore.TakeFor(std::chrono::hours(1)) ? "taken" : "none";
        },
        SemaphoreTable(
            "taken", "0",
            {At("sem_clockwait()", CannotDo("take from")),
             At("sem_clockwait()", Object(Returns("none"), "1")).For({EINTR, ETIMEDOUT})},
            {}));
}

TEST(RefusedCallsOfTheKit, WhenASemaphoreIsTakenWithoutALimit) {
    Table table = SemaphoreTable("taken", "0", {At("sem_clockwait()", CannotDo("take from"))},
                                 {"sem_clockwait()"});
    Row slices = At("sem_clockwait()", table.success).For({ETIMEDOUT});
    slices.retried = true;  // it waits in slices
    table.rows.push_back(slices);
    ExploreSemaphore(
        [](const SystemSemaphore& semaphore) {
            return semaphore.Take(std::nullopt, [] { return false; }) ? "taken" : "stopped";
        },
        table);
}

}  // namespace
}  // namespace qel::test
