#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <string>
#include <vector>

#include "Command.h"
#include "ObjectName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

class SemVerbs : public testing::Test {
protected:
    ~SemVerbs() override {
        if (semaphore_ != SEM_FAILED) {
            (void)sem_close(semaphore_);
        }
    }

    /// The semaphore, made with `value` if it is not there.
    sem_t* Semaphore(unsigned value) {
        semaphore_ = sem_open(name_.Name().c_str(), O_CREAT, 0600, value);
        EXPECT_NE(semaphore_, SEM_FAILED);
        return semaphore_;
    }
    [[nodiscard]] int Value() {
        int value = -1;
        EXPECT_EQ(sem_getvalue(Semaphore(0), &value), 0);
        return value;
    }
    [[nodiscard]] std::string Path() const { return "/dev/shm/sem." + BareName(); }
    [[nodiscard]] std::string BareName() const { return name_.Name().substr(1); }

    [[nodiscard]] std::vector<std::string> Sem(const std::string& verb,
                                               std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"sem", verb, name_.Name()});
        return options;
    }

    /// The command says nothing and succeeds.
    void ExpectDone(const std::vector<std::string>& arguments) {
        const CommandResult result = RunQev(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "");
    }

    void ExpectFailure(const std::vector<std::string>& arguments, const std::string& line) {
        const CommandResult result = RunQev(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, line + "\n");
    }

    UniqueSemaphoreName name_;

private:
    sem_t* semaphore_ = SEM_FAILED;
};

TEST_F(SemVerbs, PostLeavesItsUnitsWhenItEnds) {
    (void)Semaphore(2);
    ExpectDone(Sem("post"));
    EXPECT_EQ(Value(), 3);
    ExpectDone(Sem("post", {"--count", "5"}));
    EXPECT_EQ(Value(), 8);
}

TEST_F(SemVerbs, PostMakesASemaphoreThatOnlyItsUserMayUse) {
    ExpectDone(Sem("post", {"--count", "3"}));
    EXPECT_EQ(Value(), 3);
    struct stat status {};
    ASSERT_EQ(stat(Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(SemVerbs, PostThatFindsNoMoreRoomSaysHowFarItCame) {
    (void)Semaphore(SEM_VALUE_MAX - 2);
    ExpectFailure(Sem("post", {"--count", "5"}),
                  "qev sem post: cannot post to semaphore " + name_.Name() +
                      ": 75(Value too large for defined data type); 2 of 5 units posted");
    EXPECT_EQ(Value(), SEM_VALUE_MAX);
}

TEST_F(SemVerbs, NameMayStandWithoutItsSlash) {
    ExpectDone({"sem", "post", BareName()});
    EXPECT_EQ(Value(), 1);
}

TEST_F(SemVerbs, WaitKeepsWhatItTook) {
    (void)Semaphore(5);
    ExpectDone(Sem("wait"));
    EXPECT_EQ(Value(), 4);
    ExpectDone(Sem("wait", {"--count", "4", "--timeout", "0"}));
    EXPECT_EQ(Value(), 0);
}

TEST_F(SemVerbs, WaitEndsWhenAUnitComes) {
    Command wait(Sem("wait", {"--count", "2"}));
    ASSERT_EQ(sem_post(Semaphore(0)), 0);
    WaitUntil([this] { return Value() == 0; });
    EXPECT_FALSE(wait.HasEnded());
    ExpectDone(Sem("post"));
    EXPECT_EQ(wait.Wait().status, 0);
    EXPECT_EQ(Value(), 0);
}

TEST_F(SemVerbs, WaitThatGivesUpTakesNothing) {
    (void)Semaphore(2);
    ExpectFailure(Sem("wait", {"--count", "3", "--timeout", "0.25"}),
                  "qev sem wait: semaphore " + name_.Name() +
                      ": 2 of 3 units came within 0.25 s; none taken");
    EXPECT_EQ(Value(), 2);
}

TEST_F(SemVerbs, WaitThatIsInterruptedTakesNothing) {
    (void)Semaphore(2);
    Command wait(Sem("wait", {"--count", "3", "--timeout", "1e9"}));
    WaitUntil([this] { return Value() == 0; });
    wait.Signal(SIGTERM);
    const CommandResult result = wait.Wait();
    EXPECT_EQ(result.status, 128 + SIGTERM);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Value(), 2);
}

TEST_F(SemVerbs, TryTakesAllOrNothing) {
    (void)Semaphore(3);
    ExpectDone(Sem("try", {"--count", "2"}));
    EXPECT_EQ(Value(), 1);
    ExpectFailure(Sem("try", {"--count", "2"}),
                  "qev sem try: semaphore " + name_.Name() + ": 1 of 2 units free; none taken");
    EXPECT_EQ(Value(), 1);
    ExpectDone(Sem("try"));
    ExpectFailure(Sem("try"),
                  "qev sem try: semaphore " + name_.Name() + ": 0 of 1 units free; none taken");
}

TEST_F(SemVerbs, TryThatIsInterruptedTakesNothing) {
    (void)Semaphore(SEM_VALUE_MAX);
    Command attempt(Sem("try", {"--count", std::to_string(SEM_VALUE_MAX)}));
    WaitUntil([this] { return Value() < SEM_VALUE_MAX; });
    attempt.Signal(SIGINT);
    EXPECT_EQ(attempt.Wait().status, 130);
    EXPECT_EQ(Value(), SEM_VALUE_MAX);
}

TEST_F(SemVerbs, PostThatIsInterruptedSaysHowFarItCame) {
    Command post(Sem("post", {"--count", std::to_string(SEM_VALUE_MAX)}));
    WaitUntil([this] { return Value() > 0; });
    post.Signal(SIGINT);
    const CommandResult result = post.Wait();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "qev sem post: interrupted; " + std::to_string(Value()) +
                              " of 2147483647 units posted\n");
}

TEST_F(SemVerbs, ShowTellsValueAndFile) {
    (void)Semaphore(7);
    ASSERT_EQ(chmod(Path().c_str(), 0640), 0);
    const CommandResult result = RunQev(Sem("show"));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "semaphore  " + name_.Name() + "\nvalue      7\nfile       " + Path() +
                              ", mode 0640, user " + std::to_string(geteuid()) + ", group " +
                              std::to_string(getegid()) + "\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Value(), 7);
}

TEST_F(SemVerbs, ShowAndTryMakeNoSemaphore) {
    for (const std::string verb : {"show", "try"}) {
        ExpectFailure(Sem(verb), "qev sem " + verb + ": cannot open semaphore " + name_.Name() +
                                     ": 2(No such file or directory)");
        EXPECT_FALSE(Exists(Path()));
    }
}

TEST_F(SemVerbs, LongestNameWorks) {
    const std::string name =
        BareName() + std::string(kLongestSemaphoreName - BareName().size(), 'n');
    ExpectDone({"sem", "post", name});
    ExpectDone({"sem", "try", name});
    EXPECT_EQ(sem_unlink(("/" + name).c_str()), 0);
}

TEST_F(SemVerbs, DamagedSemaphoreIsReported) {
    for (const std::size_t length : {std::size_t{0}, sizeof(sem_t) - 1}) {
        WriteFile(Path(), std::string(length, '\0'));
        for (const std::string verb : {"show", "post", "wait", "try"}) {
            ExpectFailure(Sem(verb), "qev sem " + verb + ": " + Path() +
                                         " is damaged: too short for a semaphore");
        }
    }
}

}  // namespace
}  // namespace qel::test
