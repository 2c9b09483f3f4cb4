#include "Deaths.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <numeric>

#include "ChildProcess.h"
#include "Examination.h"
#include "Forked.h"
#include "Naming.h"
#include "RowTexts.h"
#include "SharedValue.h"
#include "Victim.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 2000;
constexpr std::uint32_t kMaxFrames = 12;
constexpr std::uint64_t kOffset = 900;  // of the writer's index, far from the end
constexpr std::size_t kMostStates = 64;

#ifdef QEV_SANITIZED
// Processes are slow to start: a load changes nothing, and the longer chain has all the steps.
constexpr bool kKillsAfterLoads = false;
constexpr std::uint8_t kShortestChain = 2;
#else
constexpr bool kKillsAfterLoads = true;
constexpr std::uint8_t kShortestChain = 1;
#endif
constexpr std::uint8_t kLongestChain = 2;

/// What those who go on see, and what they see after the ring was put right.
struct Aftermath {
    bool done = false;
    Sights naive;
    bool canBePutRight = false;
    Sights putRight;
};

/// After what step somebody died, and which of the states that left.
struct Leaving {
    Step step;
    std::size_t state;
};

/// One operation, on a ring of one shape, in one situation.
class Case {
public:
    Case(const RingImage& ring, const RingImage::Bytes& pristine, const Operation& operation,
         bool busy)
        : ring_(ring), operation_(operation), node_(NodeOf(operation, ring)), busy_(busy) {
        if (operation.fresh) {
            ring.Clear();
            standing_ = {NodeStates(ring.Form().sink + 1U), 0};
        } else {
            ring.Restore(pristine);
            standing_ = Prepare(ring, node_, busy,
                                operation.filler == 0 ? kOffset : kSize - operation.filler);
        }
        before_ = ring.Save();
        const RecordSource records(ring.File());
        const std::uint64_t next = ring.View().control.rIdx.at(node_).load();
        for (std::uint64_t place = next; held_.size() < static_cast<std::size_t>(operation.held);
             place += held_.back()) {
            held_.push_back(RecordAt(records, place)->length);
        }
        taken_ = Reads() ? RecordAt(records, next)->length : 0;
    }

    void KillAfterEveryAccess(RowTexts& texts) {
        ring_.Restore(before_);
        const Death whole = Kill(ring_, operation_, node_, 0);
        for (std::uint64_t kill = 1; kill <= whole.accesses.size(); ++kill) {
            if (kKillsAfterLoads || kill == 1 || whole.accesses[kill - 1].isWrite) {
                KillAfter(kill);
            }
        }
        LiveOn();
        for (const Leaving& leaving : leavings_) {
            SCOPED_TRACE(operation_.name + ", died after: " + leaving.step.name);
            const Measured& measured = measured_.at(leaving.state);
            texts.Add(leaving.step.operation, leaving.step.name, node_ == ring_.Form().sink,
                      ring_.Form().Limit() != 0, measured);
        }
    }

private:
    static std::uint8_t NodeOf(const Operation& operation, const RingImage& ring) {
        switch (operation.role) {
            case Operation::Role::Writer:
                return 0;
            case Operation::Role::Middle:
                return 1;
            case Operation::Role::Sink:
                return ring.Form().sink;
        }
        return 0;
    }

    void KillAfter(std::uint64_t kill) {
        ring_.Restore(before_);
        const Death death = Kill(ring_, operation_, node_, kill);
        ASSERT_TRUE(death.killed);
        RingImage::Bytes after = ring_.Save();
        leavings_.push_back({LastStep(operation_, node_, death.accesses, before_, after), 0});
        if (states_.empty() || after != states_.back()) {
            SCOPED_TRACE(operation_.name + ", died after: " + leavings_.back().step.name);
            states_.push_back(std::move(after));
            measured_.emplace_back();
            ExamineState();
        }
        leavings_.back().state = states_.size() - 1;
    }

    void ExamineState() {
        HeldBytes held{};
        for (std::size_t node = 0; node < standing_.states.size(); ++node) {
            for (const Packet& packet : standing_.states[node].held) {
                held.at(node) += kPacketHeaderSize + packet.data.size();
            }
        }
        const RecordSource records(ring_.File());
        const auto findings = Examine(ring_.Sight(records), node_, held, ring_.Form().Limit());
        ASSERT_TRUE(findings) << "nothing explains what is left";
        measured_.back().findings = *findings;
        ExpectToBeNamed(*findings, held);
        if (!busy_) {  // else what the living held is handed on as well
            EXPECT_TRUE(PutRight(ring_));
            measured_.back().changes = Changed();
            RepairInterrupted(ring_, states_.back());
        }
    }

    /// As the command sees it, while the others are there and, if they held nothing, once they are
    /// stopped.
    void ExpectToBeNamed(const Findings& findings, const HeldBytes& held) const {
        const std::uint8_t sink = ring_.Form().sink;
        const RecordSource records(ring_.File());
        const auto next = RecordAt(records, ring_.View().control.rIdx[1].load());
        Situation situation{node_, true, held, next && next->length == kPacketHeaderSize};
        const RingUsers others = AllBut(node_, sink, sleeper_.Pid());
        ExpectNamed(findings, NameWhatIsLeft(ring_, others, 0), ring_, situation);
        if (!busy_) {
            situation.areOthersThere = false;
            for (const unsigned nodes : {0U, sink + 1U}) {
                ExpectNamed(findings, NameWhatIsLeft(ring_, {}, nodes), ring_, situation);
            }
        }
    }

    /// Another process lives on after each of the deaths, so that its end would be seen.
    void LiveOn() {
        const SharedValue<std::array<Aftermath, kMostStates>> results;
        const int status = WaitFor(Fork([&] {
            for (std::size_t state = 0; state < states_.size(); ++state) {
                Live(states_[state], results->at(state));
            }
        }));
        for (std::size_t state = 0; state < states_.size(); ++state) {
            SCOPED_TRACE(operation_.name + ", state " + std::to_string(state));
            const Aftermath& result = results->at(state);
            ASSERT_TRUE(result.done) << "those who went on ended with status " << status;
            measured_[state].sights = result.naive;
            EXPECT_FALSE(result.naive.undefined || result.naive.outside);
            EXPECT_TRUE(result.canBePutRight);
            EXPECT_THAT(result.putRight.Words(), testing::IsEmpty()) << "after it was put right";
        }
        EXPECT_EQ(status, 0);
    }

    /// All that a process that outlives the dead one can see.
    void Live(const RingImage::Bytes& left, Aftermath& result) const {
        for (const bool mixed : {false, true}) {
            for (const bool readersFirst : {false, true}) {
                Traffic traffic = TrafficAfter();
                traffic.mixedSizes = mixed;
                traffic.readersFirst = readersFirst;
                ring_.Restore(left);
                result.naive |= GoOn(ring_, States(), traffic);

                ring_.Restore(left);
                result.canBePutRight = PutRight(ring_);
                NodeStates states = States();
                for (NodeState& state : states) {
                    state.held.clear();
                }
                result.putRight |= GoOn(ring_, states, traffic);
            }
        }
        result.done = true;
    }

    [[nodiscard]] bool Reads() const {
        return operation_.role != Operation::Role::Writer && operation_.held == 0 &&
               !operation_.opens;
    }
    [[nodiscard]] bool Writes() const { return operation_.written != 0; }

    [[nodiscard]] NodeStates States() const {
        NodeStates states = standing_.states;
        states[node_].lastRead += operation_.held + (Reads() ? 1 : 0);
        return states;
    }
    [[nodiscard]] Traffic TrafficAfter() const {
        Traffic traffic{};
        traffic.first = standing_.next + (Writes() ? 1 : 0);
        traffic.uncertain = Writes() ? standing_.next : -1;
        traffic.taking = Reads() ? node_ : std::uint8_t{0};
        return traffic;
    }

    [[nodiscard]] Changes Changed() const {
        const bool isHeld = measured_.back().findings.count(Finding::HeldBytesLost) != 0;
        const std::uint64_t filler = operation_.filler;
        const Amounts amounts{
            {"shmSize", kSize},
            {"(limit + 1)", ring_.Form().Limit()},
            {"h", held_.size() > 1 ? held_.size() : 0},
            {"L", operation_.written == 0 ? 0 : kPacketHeaderSize + operation_.written},
            {isHeld ? "H" : "L", taken_},
            {"H", std::accumulate(held_.begin(), held_.end(), std::uint64_t{0})},
            {"F", filler},
            {"(F − 26)", filler == 0 ? 0 : filler - kPacketHeaderSize},
        };
        return Compare(states_.back(), ring_.Save(), node_, amounts);
    }

    const RingImage& ring_;
    const Operation& operation_;
    std::uint8_t node_;
    bool busy_;
    Standing standing_;
    RingImage::Bytes before_;
    std::vector<RingImage::Bytes> states_;  // that were left, each once
    std::vector<Measured> measured_;        // of these
    std::vector<Leaving> leavings_;
    std::vector<std::uint64_t> held_;  // lengths of what the victim holds
    std::uint64_t taken_ = 0;          // length of what it reads
    ChildProcess sleeper_{[](const Conversation& parent) {
        (void)parent.Hear();
        return 0;
    }};
};

}  // namespace

std::vector<Row> MeasureDeaths() {
    RowTexts texts;
    const std::vector<Operation> operations = Operations();
    std::vector<std::unique_ptr<RingImage>> rings;
    std::vector<RingImage::Bytes> pristine;
    for (const std::uint32_t maxFrames : {kMaxFrames, 0U}) {
        for (std::uint8_t sink = kShortestChain; sink <= kLongestChain; ++sink) {
            rings.push_back(std::make_unique<RingImage>(Shape{kSize, sink, maxFrames}));
            pristine.push_back(rings.back()->Save());
        }
    }
    for (const Operation& operation : operations) {
        for (std::size_t ring = 0; ring < rings.size(); ++ring) {
            if (operation.role == Operation::Role::Middle && rings[ring]->Form().sink == 1) {
                continue;
            }
            for (const bool busy : {false, true}) {
                Case(*rings[ring], pristine[ring], operation, busy).KillAfterEveryAccess(texts);
            }
        }
    }
    return texts.Rows();
}

}  // namespace qel::test
