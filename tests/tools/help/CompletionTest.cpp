#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <semaphore.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Bash.h"
#include "Command.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

using Words = std::vector<std::string>;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

/// What is typed behind "qev", the last word up to its end, and what is offered. RING, BLOCK and
/// SEM stand for the names of a ring, a block and a semaphore that are there.
struct Row {
    Words typed;
    Words offered;
};

/// The names are each other's neighbours, so that all would be offered for the same beginning.
class Completion : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RunQev({"--write-pages", folder_.Path()}).status, 0);
        WriteFile(ring_.Path(), "");
        WriteFile(block_.LockPath(), "");
        sem_t* const semaphore = sem_open(semaphore_.Name().c_str(), O_CREAT, 0600, 0);
        ASSERT_NE(semaphore, SEM_FAILED);
        ASSERT_EQ(sem_close(semaphore), 0);
    }

    [[nodiscard]] Words Offered(Words words) const {
        words.insert(words.begin(), "qev");
        return test::Offered(folder_.Path("completions/qev"), "_qev", words);
    }

    void Expect(const std::vector<Row>& rows) const {
        for (const Row& row : rows) {
            EXPECT_EQ(Offered(Filled(row.typed)), Filled(row.offered))
                << testing::PrintToString(row.typed);
        }
    }

    TemporaryFolder folder_;
    UniqueRingName ring_;
    UniqueBlockName block_;
    UniqueSemaphoreName semaphore_;

private:
    [[nodiscard]] Words Filled(Words words) const {
        for (std::string& word : words) {
            word = Replaced(word, "RING", ring_.Name());
            word = Replaced(word, "BLOCK", block_.Name());
            word = Replaced(word, "SEM", semaphore_.Name().substr(1));
        }
        return words;
    }

    static std::string Replaced(std::string text, const std::string& word,
                                const std::string& with) {
        if (const auto at = text.find(word); at != std::string::npos) {
            text.replace(at, word.size(), with);
        }
        return text;
    }
};

TEST_F(Completion, OffersVerbs) {
    Expect({{{"pi"}, {"pipeline"}},
            {{"block", ""}, {"write", "read", "show"}},
            {{"block", "s"}, {"show"}},
            {{"sem", ""}, {"show", "post", "wait", "try"}},
            {{"nosuch", "pi"}, {"pipeline"}},
            {{"nosuch-verb"}, {}}});
}

TEST_F(Completion, OffersOptions) {
    Expect({{{"--v"}, {"--version"}},
            {{"pipeline", "--in"}, {"--input"}},
            {{"pipeline", "--json", "--in"}, {"--input"}},
            {{"sem", "wait", "x", "--t"}, {"--timeout"}},
            {{"sem", "wait", "x", ""}, {"-h", "--help", "--count", "--timeout"}},
            {{"sem", "wait", "--nosuch"}, {}}});
}

TEST_F(Completion, OffersValuesThatAreChoices) {
    Expect({{{"produce", "--wait", ""}, {"adaptive", "sleep", "spin", "yield"}},
            {{"produce", "--wait", "s"}, {"sleep", "spin"}},
            {{"produce", "--wait", "="}, {"adaptive", "sleep", "spin", "yield"}},
            {{"produce", "--wait", "=", "y"}, {"yield"}},
            {{"produce", "--wait", "spin", "--pa"}, {"--packet"}},
            {{"node", "--node", ""}, {"1", "2", "3", "4"}},
            {{"pipeline", "--nodes", ""}, {"2", "3", "4", "5"}},
            {{"produce", "--size", ""}, {}},
            {{"produce", "--size", "--"}, {}},
            {{"sem", "wait", "--count", "--timeout", "SEM"}, {"SEM"}}});
}

TEST_F(Completion, OffersObjectsOfTheKindThatIsWanted) {
    Expect({{{"produce", "--name", "RIN"}, {}},
            {{"produce", "--name", "RING"}, {"RING"}},
            {{"produce", "--name", "BLOCK"}, {}},
            {{"produce", "--name", "SEM"}, {}},
            {{"consume", "--name", "=", "RING"}, {"RING"}},
            {{"block", "read", "BLOCK"}, {"BLOCK"}},
            {{"block", "read", "RING"}, {}},
            {{"block", "read", "--output", "x", "BLOCK"}, {"BLOCK"}},
            {{"seal", "BLOCK"}, {"BLOCK"}},
            {{"sem", "show", "SEM"}, {"SEM"}},
            {{"sem", "show", "/SEM"}, {"/SEM"}},
            {{"sem", "show", "RING"}, {}}});
}

TEST_F(Completion, OffersAllObjectsForTheSameBeginning) {
    const std::string start = "qev-test-" + std::to_string(getpid()) + "-";
    EXPECT_THAT(Offered({"produce", "--name", start}), ElementsAre(ring_.Name()));
}

TEST_F(Completion, QuotesThemAndRunsNothingInThem) {
    const std::string mark = folder_.Path("mark");
    const std::string start = ring_.Name();
    const Words evil{start + "$(touch mark)", start + "`touch mark`", start + "; touch mark",
                     start + " a b", start + "*"};
    for (const std::string& name : evil) {
        WriteFile("/dev/shm/" + name + ".shm", "");
    }
    const Words offered = Offered({"produce", "--name", start});
    const Words quoted = Offered({"produce", "--name", start + "\\ a"});
    for (const std::string& name : evil) {
        EXPECT_EQ(unlink(("/dev/shm/" + name + ".shm").c_str()), 0);
    }
    EXPECT_THAT(offered, UnorderedElementsAre(
                             start, start + "\\$\\(touch\\ mark\\)", start + "\\`touch\\ mark\\`",
                             start + "\\;\\ touch\\ mark", start + "\\ a\\ b", start + "\\*"));
    EXPECT_THAT(quoted, ElementsAre(start + "\\ a\\ b"));
    EXPECT_FALSE(Exists("mark"));
}

TEST_F(Completion, OffersWhatIsMissingBehindAColonAtWhichBashPartsWords) {
    const std::string name = ring_.Name();
    WriteFile("/dev/shm/" + name + ":b:c.shm", "");
    const Words one = Offered({"produce", "--name", name, ":"});
    const Words two = Offered({"produce", "--name", name, ":", "b", ":"});
    const Words three = Offered({"produce", "--name", name, ":", "b", ":", "c", "--wa"});
    EXPECT_EQ(unlink(("/dev/shm/" + name + ":b:c.shm").c_str()), 0);
    EXPECT_THAT(one, ElementsAre("b:c"));
    EXPECT_THAT(two, ElementsAre("c"));
    EXPECT_THAT(three, ElementsAre("--wait"));
}

TEST_F(Completion, OffersFilesAndFolders) {
    const std::string file = folder_.Path("a file");
    WriteFile(file, "");
    EXPECT_THAT(Offered({"pipeline", "--input", folder_.Path("a")}), ElementsAre(file));
    EXPECT_THAT(Offered({"pipeline", "--input", folder_.Path("comp")}),
                ElementsAre(folder_.Path("completions")));
}

TEST_F(Completion, OffersUsers) {
    const passwd* const user = getpwuid(0);
    if (user == nullptr) {
        GTEST_SKIP() << "no user is known here by name";
    }
    EXPECT_THAT(Offered({"reserve", "x", "--owner", user->pw_name}),
                testing::Contains(user->pw_name));
}

TEST_F(Completion, IsRegisteredForTheCommand) {
    EXPECT_EQ(OutputOf("bash --norc -c " + ShellWord("source " + folder_.Path("completions/qev") +
                                                     "; complete -p qev")),
              "complete -F _qev qev\n");
}

}  // namespace
}  // namespace qel::test
