// What the published tables say of the qev command: what it shows after a death, and what it puts
// right.

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "NamedSemaphore.h"
#include "Stage.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

/// What the command writes, its columns one blank apart.
std::string Qev(const std::string& arguments) {
    const std::string line = QEV_COMMAND " " + arguments + " 2>&1";
    FILE* const out = ::popen(line.c_str(), "r");  // NOLINT(cert-env33-c): a name of our own
    if (out == nullptr) {
        throw std::runtime_error("cannot run " + line);
    }
    std::string text;
    for (int byte = std::fgetc(out); byte != EOF; byte = std::fgetc(out)) {
        if (byte != ' ' || text.empty() || text.back() != ' ') {
            text += static_cast<char>(byte);
        }
    }
    ::pclose(out);
    return text;
}

struct Sight {
    const char* name;
    const char* scene;
    Moment moment;
    std::string shown;  ///< NAME stands for the block's
};

class ADeathBesideABlock : public ::testing::TestWithParam<Sight> {};

TEST_P(ADeathBesideABlock, ShowsAsPublished) {
    Stage stage(SceneNamed(GetParam().scene));
    stage.Kill(GetParam().moment);
    std::string shown = GetParam().shown;
    if (const auto at = shown.find("NAME"); at != std::string::npos) {
        shown.replace(at, 4, stage.Name().Name());
    }

    EXPECT_NE(Qev("block show " + stage.Name().Name()).find(shown), std::string::npos);
    EXPECT_EQ(stage.Look().see, "`qev block show NAME`: `" + GetParam().shown + "`");
}

INSTANTIATE_TEST_SUITE_P(That, ADeathBesideABlock,
                         ::testing::Values(Sight{"LeavesNothing",
                                                 "CreatingWithoutALockFile",
                                                 {Moment::Kind::BeforeCall, "open", 1},
                                                 "there is no block NAME"},
                                           Sight{"LeavesALockFileWithoutARecord",
                                                 "CreatingWithoutALockFile",
                                                 {Moment::Kind::AfterCall, "flock", 1},
                                                 "record none"},
                                           Sight{"LeavesARecord",
                                                 "CreatingWithoutALockFile",
                                                 {Moment::Kind::AfterCall, "mmap", 2},
                                                 "creator gone"},
                                           Sight{"LeavesTheRecordOfALivingProcess",
                                                 "CreatingOverAReusedDescriptor",
                                                 {Moment::Kind::BeforeCall, "memfd_create", 1},
                                                 "the record is stale"}),
                         [](const auto& sight) { return sight.param.name; });

class ADeathBesideASemaphore : public ::testing::Test {
protected:
    /// The value after a process that has done `action` with its handle was killed.
    template <typename Action>
    void Kill(const Action& action) const {
        ChildProcess process([&](const Conversation& parent) {
            const NamedSemaphore handle(name_.Name(), 3);
            action(handle);
            parent.Say("done");
            (void)parent.Hear();
            return 0;
        });
        EXPECT_EQ(process.Hear(), "done");
    }
    [[nodiscard]] bool Shows(const std::string& text) const {
        return Qev("sem show " + name_.Name()).find(text) != std::string::npos;
    }

    UniqueSemaphoreName name_;
};

TEST_F(ADeathBesideASemaphore, ThatWasNotThereShowsThatItIsNot) {
    EXPECT_TRUE(Shows("cannot open semaphore " + name_.Name()));
}

TEST_F(ADeathBesideASemaphore, WithAUnitTakenIsPutRightByAPost) {
    Kill([](const NamedSemaphore& handle) { handle.Wait(); });
    EXPECT_TRUE(Shows("value 2\n"));
    EXPECT_EQ(Qev("sem post " + name_.Name() + " --count 1"), "");
    EXPECT_TRUE(Shows("value 3\n"));
}

TEST_F(ADeathBesideASemaphore, WithAUnitGivenIsPutRightByATry) {
    Kill([](const NamedSemaphore& handle) { handle.Post(); });
    EXPECT_TRUE(Shows("value 4\n"));
    EXPECT_EQ(Qev("sem try " + name_.Name() + " --count 1"), "");
    EXPECT_TRUE(Shows("value 3\n"));
}

}  // namespace
}  // namespace qel::test
