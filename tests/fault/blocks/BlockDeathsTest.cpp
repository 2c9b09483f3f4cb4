// A process that uses a block is killed before and after each system call that it makes.

#include <gtest/gtest.h>

#include <map>

#include "BlockTable.h"
#include "DeathTable.h"
#include "Stage.h"

namespace qel::test {
namespace {

class AUserOfABlock : public ::testing::TestWithParam<Scene> {
protected:
    static Outcome OutcomeOf(const Moment& moment) {
        Stage stage(GetParam());
        stage.Kill(moment);
        return stage.Look();
    }
};

TEST_P(AUserOfABlock, KilledBeforeOrAfterAnyCallLeavesWhatIsPublished) {
    DeathRows rows;
    std::map<std::string, int> made;
    for (const std::string& call : Stage(GetParam()).Rehearse()) {
        const std::string operation = call.substr(0, call.find('('));
        const int nth = ++made[operation];
        const std::string step = StepOf(call);
        if (step.empty()) {
            continue;
        }
        SCOPED_TRACE(call);
        const Outcome before = OutcomeOf({Moment::Kind::BeforeCall, operation, nth});
        if (operation == "data") {
            rows.Add(step, before);  // has been written when the process dies
            continue;
        }
        rows.AddBeforeNext(before);
        rows.Add(step, OutcomeOf({Moment::Kind::AfterCall, operation, nth}));
    }
    rows.ExpectPublished(BlockTable(), GetParam().title);
}

INSTANTIATE_TEST_SUITE_P(While, AUserOfABlock, ::testing::ValuesIn(Scenes()),
                         [](const auto& scene) { return scene.param.name; });

TEST(TheTableOfBlockDeaths, HoldsWhatIsMeasuredAndNothingElse) {
    BlockTable().ExpectNothingElse();
}

}  // namespace
}  // namespace qel::test
