#include "Naming.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>

#include "RingCheck.h"
#include "RingRepair.h"
#include "RingText.h"

namespace qel::test {
namespace {

using Kind = RingDeviation::Kind;

/// All that says that bytes are in no counter, where only the reason can differ.
const Codes kLostBytes{"bytes-lost", "taking-bytes-lost", "record-bytes-lost"};
constexpr const char* kLost = "lost bytes";

RingCheckOptions Options(const RingImage& ring, unsigned nodes) {
    RingCheckOptions options;
    if (nodes != 0) {
        options.judge.nodes = nodes;
    }
    options.judge.patience.pause = [](auto) {};
    options.maxFrames = ring.Form().maxFrames;
    return options;
}

std::string CodeOfLeft(Finding finding) {
    switch (finding) {
        case Finding::NeverInitialised:
            return "never-initialised";
        case Finding::LimitMissing:
            return "limit-missing";
        case Finding::CountHigh:
            return "count-high";
        case Finding::RecordHandedOn:
            return "record-handed-on";
        case Finding::FillerBegun:
            return "filler-begun";
        case Finding::FillerBytesLost:
            return "filler-bytes-lost";
        case Finding::FillerHandedOn:
            return "filler-handed-on";
        case Finding::RecordBytesLost:
        case Finding::TakingBytesLost:
        case Finding::HeldBytesLost:
            break;
    }
    return kLost;
}

Codes CodesOf(const Findings& findings, const RingImage& ring) {
    Codes codes;
    for (const Finding finding : findings) {
        codes.insert(CodeOfLeft(finding));
    }
    if (codes.count("never-initialised") != 0 && ring.Form().Limit() != 0) {
        codes.insert("limit-missing");
    }
    if (findings.count(Finding::RecordBytesLost) + findings.count(Finding::FillerBytesLost) != 0) {
        codes.erase("count-high");  // says the same once more
    }
    return codes;
}

bool IsExplained(const Findings& findings, const Codes& expected, const Codes& named,
                 const Situation& situation) {
    const auto has = [&](Finding finding) { return findings.count(finding) != 0; };
    const auto without = [](Codes codes, const Codes& less) {
        for (const std::string& code : less) {
            codes.erase(code);
        }
        return codes;
    };
    if (named == expected) {
        return true;
    }
    const bool doOthersHide = situation.areOthersThere && !has(Finding::HeldBytesLost) &&
                              (has(Finding::RecordBytesLost) || has(Finding::TakingBytesLost));
    if (doOthersHide && named == without(expected, {kLost})) {
        return true;
    }
    if (has(Finding::FillerBytesLost) && situation.areOthersThere &&
        named == Codes{"filler-begun"}) {
        return true;
    }
    if (has(Finding::CountHigh) && has(Finding::HeldBytesLost) &&
        named == without(expected, {"count-high"})) {
        return true;
    }
    const bool isBareFiller = has(Finding::FillerBegun) || has(Finding::FillerBytesLost);
    return isBareFiller && situation.isNextBare && named.count(kLost) != 0;
}

}  // namespace

Named NameWhatIsLeft(const RingImage& ring, const RingUsers& users, unsigned nodes) {
    const RingCheckOptions options = Options(ring, nodes);
    Named named;
    for (const qel::Finding& finding : CheckRing(ring.File(), users, options)) {
        if (finding.code == "node-missing") {
            named.isNodeMissing = true;
            continue;
        }
        named.codes.insert(kLostBytes.count(finding.code) != 0 ? kLost : finding.code);
        // Somebody may be about to rest, and not be run at this moment.
        EXPECT_TRUE(finding.severity == Severity::Fault ||
                    (finding.severity == Severity::Note && !users.AreNone()))
            << finding.text;
        EXPECT_EQ(finding.mend.empty(), finding.severity == Severity::Note) << finding.text;
    }
    for (const JudgedDeviation& judged : JudgeRing(ring.File(), users, options.judge).found) {
        const Kind kind = judged.deviation.kind;
        const bool isLost = kind == Kind::BytesLost || kind == Kind::TakingBytesLost ||
                            kind == Kind::RecordBytesLost || kind == Kind::FillerBytesLost;
        named.lostBytes += isLost ? judged.deviation.bytes : 0;
    }
    return named;
}

RingUsers AllBut(std::uint8_t dead, std::uint8_t sink, pid_t pid) {
    RingUsers users;
    for (std::uint8_t node = 0; node <= sink; ++node) {
        if (node != dead) {
            users.users.push_back(
                {pid, ::geteuid(), "node", 'S', true, {OpenDescriptor{3, true, {node}}}, true});
        }
    }
    return users;
}

void ExpectNamed(const Findings& findings, const Named& named, const RingImage& ring,
                 const Situation& situation) {
    const Codes expected = CodesOf(findings, ring);
    EXPECT_TRUE(IsExplained(findings, expected, named.codes, situation))
        << "named " << testing::PrintToString(named.codes) << ", not "
        << testing::PrintToString(expected);
    EXPECT_EQ(named.isNodeMissing, situation.areOthersThere && situation.dead != 0 &&
                                       ring.View().control.avail.at(situation.dead).load() != 0);
    if (named.codes == expected && expected.count("never-initialised") == 0) {
        const ControlBlock& control = ring.View().control;
        std::uint64_t counted =
            std::accumulate(situation.held.begin(), situation.held.end(), std::uint64_t{0});
        for (std::uint8_t node = 0; node <= ring.Form().sink; ++node) {
            counted += control.avail.at(node).load();
        }
        const std::uint64_t lost = ring.Form().size - counted;
        const bool mayHide =
            situation.areOthersThere && findings.count(Finding::TakingBytesLost) != 0;
        EXPECT_TRUE(named.lostBytes == lost || (mayHide && named.lostBytes < lost))
            << named.lostBytes << " are said to be lost, not " << lost;
    }
}

void RepairInterrupted(const RingImage& ring, const RingImage::Bytes& left) {
    struct Killed {};
    ring.Restore(left);
    const RingRepairOptions options{ring.Form().sink + 1U, ring.Form().maxFrames};
    const RingRepairPlan whole = PlanRepair(ring.File(), options);
    const RingHold hold(ring.File(), RingHold::IfInUse::Refuse);
    for (std::size_t stores = 1; stores < whole.Changes().size(); ++stores) {
        ring.Restore(left);
        std::size_t done = 0;
        EXPECT_THROW(hold.Apply(whole,
                                [&] {
                                    if (++done == stores) {
                                        throw Killed();
                                    }
                                }),
                     Killed);
        const Named named = NameWhatIsLeft(ring, {}, ring.Form().sink + 1U);
        EXPECT_THAT(named.codes, testing::Not(testing::IsEmpty())) << "after " << stores;
        const RingRepairPlan rest = PlanRepair(ring.File(), options);
        ASSERT_TRUE(rest.CanBeDone()) << rest.refusal << " after " << stores;
        hold.Apply(rest);
        EXPECT_TRUE(ring.File().Fields() == whole.after) << "after " << stores;
    }
}

}  // namespace qel::test
