#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Command.h"
#include "OpenRing.h"
#include "Refusal.h"

namespace qel::test {
namespace {

using Row = RefusalRow;

TEST_P(Refusal, IsOneLineAndTouchesNothing) {
    const CommandResult result = RunQev(Filled(GetParam().arguments));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, Filled(GetParam().line) + "\n");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(ReadFile(folder_.Path("OUT")), "precious");
    EXPECT_EQ(ReadFile(folder_.Path("IN")), "input");
    EXPECT_FALSE(Exists(folder_.Path("NEW")));
    EXPECT_FALSE(Exists(name_.Path()));
    EXPECT_FALSE(Exists(LockPath()));
    EXPECT_FALSE(Exists(SemaphorePath()));
}

std::vector<std::string> Pipeline(const std::vector<std::string>& options) {
    std::vector<std::string> all{"pipeline", "--input", "IN", "--output", "OUT", "--name", "NAME"};
    all.insert(all.end(), options.begin(), options.end());
    return all;
}

const std::string kLongName(252, 'n');

INSTANTIATE_TEST_SUITE_P(
    Pipeline, Refusal,
    testing::Values(
        Row{Pipeline({"--nodes", "1"}), "qev pipeline: --nodes: Value 1 not in range 2 to 5"},
        Row{Pipeline({"--nodes", "6"}), "qev pipeline: --nodes: Value 6 not in range 2 to 5"},
        Row{Pipeline({"--size", "0"}), "qev pipeline: the size of a ring must not be 0"},
        Row{Pipeline({"--size", "18446744073709551615"}),
            "qev pipeline: the size of a ring is at most 9223372036854775655 bytes, not "
            "18446744073709551615"},
        Row{Pipeline({"--packet", "0"}), "qev pipeline: the size of a packet must not be 0"},
        Row{Pipeline({"--packet", "845", "--size", "1000"}),
            "qev pipeline: a packet of 845 bytes does not fit in a ring of 1000: 156 more are "
            "needed for its header and the reserve of critical packets"},
        Row{Pipeline({"--packet", "1", "--size", "100"}),
            "qev pipeline: a packet of 1 bytes does not fit in a ring of 100: 156 more are needed "
            "for its header and the reserve of critical packets"},
        Row{Pipeline({"--max-frames", "4294967296"}),
            "qev pipeline: Could not convert: --max-frames = 4294967296"},
        Row{Pipeline({"--max-frames", "-1"}), "qev pipeline: Could not convert: --max-frames = -1"},
        Row{Pipeline({"--frames", "1"}),
            "qev pipeline: The following arguments were not expected: 1 --frames"},
        Row{{"pipeline", "--input", "IN", "--output", "OUT", "--name", "a/b"},
            "qev pipeline: the name of a ring must not contain a slash: a/b"},
        Row{{"pipeline", "--input", "IN", "--output", "OUT", "--name", ""},
            "qev pipeline: the name of a ring must not be empty"},
        Row{{"pipeline", "--input", "IN", "--output", "OUT", "--name", kLongName},
            "qev pipeline: the name of a ring has at most 251 characters, not 252"},
        Row{{"pipeline", "--input", "IN", "--output", "IN", "--name", "NAME"},
            "qev pipeline: IN and IN are the same file"},
        Row{{"pipeline", "--input", "NEW", "--output", "OUT", "--name", "NAME"},
            "qev pipeline: cannot read NEW: 2(No such file or directory)"},
        Row{{"pipeline", "--input", "DIR", "--output", "OUT", "--name", "NAME"},
            "qev pipeline: cannot read DIR: 21(Is a directory)"},
        Row{{"pipeline", "--input", "/dev/zero", "--output", "OUT", "--name", "NAME"},
            "qev pipeline: cannot compare with /dev/zero: it is not a regular file"},
        Row{{"pipeline", "--input", "IN", "--output", "DIR", "--name", "NAME"},
            "qev pipeline: cannot write DIR: 21(Is a directory)"},
        Row{{"pipeline", "--input", "IN", "--output", "DIR/no/file", "--name", "NAME"},
            "qev pipeline: cannot write DIR/no/file: 2(No such file or directory)"},
        Row{{"pipeline", "--input", "IN", "--output", "OUT/file", "--name", "NAME"},
            "qev pipeline: cannot write OUT/file: 20(Not a directory)"},
        Row{{"pipeline", "--input", "IN", "--output", "NEW/", "--name", "NAME"},
            "qev pipeline: cannot write NEW/: 2(No such file or directory)"},
        Row{{"pipeline", "--input", "IN", "--output", "", "--name", "NAME"},
            "qev pipeline: cannot write : 2(No such file or directory)"},
        Row{{"pipeline", "--input", "IN", "--output", "-", "--name", "NAME"},
            "qev pipeline: the output must be a file with a name"},
        Row{{"pipeline", "--output", "OUT", "--name", "NAME"}, "qev pipeline: --input is required"},
        Row{{"pipeline", "--input", "IN", "--name", "NAME"},
            "qev pipeline: --output is required"}));

INSTANTIATE_TEST_SUITE_P(
    Produce, Refusal,
    testing::Values(
        Row{{"produce", "--name", "NAME", "--input", "NEW"},
            "qev produce: cannot read NEW: 2(No such file or directory)"},
        Row{{"produce", "--name", "NAME", "--input", "DIR"},
            "qev produce: cannot read DIR: 21(Is a directory)"},
        Row{{"produce", "--name", "NAME", "--size", "0"},
            "qev produce: the size of a ring must not be 0"},
        Row{{"produce", "--name", "NAME", "--packet", "0"},
            "qev produce: the size of a packet must not be 0"},
        Row{{"produce", "--name", "NAME", "--size", "1000"},
            "qev produce: a packet of 65536 bytes does not fit in a ring of 1000: 156 more are "
            "needed for its header and the reserve of critical packets"},
        Row{{"produce", "--name", "NAME", "--node", "1"},
            "qev produce: --node: Value 1 not in range 0 to 0"},
        Row{{"produce", "--name", "NAME", "--sink"},
            "qev produce: The following argument was not expected: --sink"},
        Row{{"produce", "--name", "a/b"},
            "qev produce: the name of a ring must not contain a slash: a/b"},
        Row{{"produce"}, "qev produce: --name is required"}));

INSTANTIATE_TEST_SUITE_P(
    Readers, Refusal,
    testing::Values(Row{{"node", "--name", "NAME", "--node", "0"},
                        "qev node: --node: Value 0 not in range 1 to 4"},
                    Row{{"node", "--name", "NAME", "--node", "5"},
                        "qev node: --node: Value 5 not in range 1 to 4"},
                    Row{{"node", "--name", "NAME", "--node", "4"},
                        "qev node: node 4 is the last and must be the sink"},
                    Row{{"node", "--name", "NAME", "--node", "1", "--size", "0"},
                        "qev node: the size of a ring must not be 0"},
                    Row{{"node", "--name", "a/b", "--node", "1"},
                        "qev node: the name of a ring must not contain a slash: a/b"},
                    Row{{"node", "--name", "NAME"}, "qev node: --node is required"},
                    Row{{"consume", "--name", "NAME", "--node", "5", "--output", "OUT"},
                        "qev consume: --node: Value 5 not in range 1 to 4"},
                    Row{{"consume", "--name", "NAME", "--node", "1", "--output", "DIR"},
                        "qev consume: cannot write DIR: 21(Is a directory)"},
                    Row{{"consume", "--name", "NAME", "--node", "1", "--size", "0", "--output",
                         "OUT"},
                        "qev consume: the size of a ring must not be 0"},
                    Row{{"consume", "--name", "a/b", "--node", "1", "--output", "OUT"},
                        "qev consume: the name of a ring must not contain a slash: a/b"},
                    Row{{"consume", "--name", "a\nb/", "--node", "1", "--output", "OUT"},
                        "qev consume: the name of a ring must not contain a slash: a b/"}));

INSTANTIATE_TEST_SUITE_P(
    Blocks, Refusal,
    testing::Values(
        Row{{"block"}, "qev block: A subcommand is required"},
        Row{{"block", "juggle"}, "qev block: A subcommand is required"},
        Row{{"block", "write", "NAME", "--input", "IN"}, "qev block write: --size is required"},
        Row{{"block", "write", "NAME", "--size", "0", "--input", "IN"},
            "qev block write: the size of a block must not be 0"},
        Row{{"block", "write", "NAME", "--size", "18446744073709551615", "--input", "IN"},
            "qev block write: a block of 18446744073709551615 bytes does not fit in this machine's "
            "memory"},
        Row{{"block", "write", "NAME", "--size", "-18446744073709551615", "--input", "IN"},
            "qev block write: --size: Value -18446744073709551615 is not a number of bytes"},
        Row{{"block", "write", "NAME", "--size", "010", "--input", "IN"},
            "qev block write: --size: Value 010 is not a number of bytes"},
        Row{{"block", "write", "NAME", "--size", "", "--input", "IN"},
            "qev block write: --size: Value  is not a number of bytes"},
        Row{{"block", "write", "", "--size", "1", "--input", "IN"},
            "qev block write: the name of a block must not be empty"},
        Row{{"block", "write", "a/b", "--size", "1", "--input", "IN"},
            "qev block write: the name of a block must not contain a slash: a/b"},
        Row{{"block", "write", std::string(245, 'n'), "--size", "1", "--input", "IN"},
            "qev block write: the name of a block has at most 244 characters, not 245"},
        Row{{"block", "write", "NAME", "--size", "1", "--input", "NEW"},
            "qev block write: cannot read NEW: 2(No such file or directory)"},
        Row{{"block", "read", "a/b", "--output", "OUT"},
            "qev block read: the name of a block must not contain a slash: a/b"},
        Row{{"block", "read", "NAME", "--output", "DIR"},
            "qev block read: cannot write DIR: 21(Is a directory)"},
        Row{{"block", "read", "NAME", "--size", "1"},
            "qev block read: The following arguments were not expected: 1 --size"},
        Row{{"block", "show", ""}, "qev block show: the name of a block must not be empty"},
        Row{{"block", "show", "NAME", "other"},
            "qev block show: The following argument was not expected: other"}));

INSTANTIATE_TEST_SUITE_P(
    Semaphores, Refusal,
    testing::Values(
        Row{{"sem"}, "qev sem: A subcommand is required"},
        Row{{"sem", "post", ""}, "qev sem post: the name of a semaphore must not be empty"},
        Row{{"sem", "post", "/"}, "qev sem post: the name of a semaphore must not be empty"},
        Row{{"sem", "wait", "//a"},
            "qev sem wait: the name of a semaphore must not contain a slash: /a"},
        Row{{"sem", "try", std::string(252, 'n')},
            "qev sem try: the name of a semaphore has at most 251 characters, not 252"},
        Row{{"sem", "post", "NAME", "--count", "0"},
            "qev sem post: --count: Value 0 not in range 1 to 2147483647"},
        Row{{"sem", "try", "NAME", "--count", "2147483648"},
            "qev sem try: --count: Value 2147483648 not in range 1 to 2147483647"},
        Row{{"sem", "wait", "NAME", "--count", "many"},
            "qev sem wait: --count: Value many not in range 1 to 2147483647"},
        Row{{"sem", "wait", "NAME", "--timeout", "-0.1"},
            "qev sem wait: --timeout: -0.1 is not in range 0 to 1000000000"},
        Row{{"sem", "wait", "NAME", "--timeout", "nan"},
            "qev sem wait: --timeout: nan is not in range 0 to 1000000000"},
        Row{{"sem", "wait", "NAME", "--timeout", "inf"},
            "qev sem wait: --timeout: inf is not in range 0 to 1000000000"},
        Row{{"sem", "wait", "NAME", "--timeout", "soon"},
            "qev sem wait: Could not convert: --timeout = soon"},
        Row{{"sem", "wait", "NAME", "--timeout", ""}, "qev sem wait: --timeout: Value is empty"},
        Row{{"sem", "post", "NAME", "--timeout", "1"},
            "qev sem post: The following arguments were not expected: 1 --timeout"},
        Row{{"sem", "show", "NAME", "--count", "1"},
            "qev sem show: The following arguments were not expected: 1 --count"}));

INSTANTIATE_TEST_SUITE_P(Command, Refusal,
                         testing::Values(Row{{}, "qev: A subcommand is required"},
                                         Row{{"juggle"}, "qev: A subcommand is required"},
                                         Row{{"--juggle"}, "qev: A subcommand is required"}));

TEST(RefusalWithoutAName, IsOneLine) {
    for (const std::string verb : {"block write", "block read", "block show", "sem show",
                                   "sem post", "sem wait", "sem try", "inspect"}) {
        std::istringstream words(verb);
        const CommandResult result =
            RunQev(std::vector<std::string>(std::istream_iterator<std::string>(words), {}));
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "qev " + verb + ": NAME is required\n");
    }
}

class RefusalOfARing : public Refusal {};

TEST_F(RefusalOfARing, PipelineTakesNoRingThatExists) {
    WriteFile(name_.Path(), "another's");
    const CommandResult result = RunQev(Filled(Pipeline({})));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, Filled("qev pipeline: ring NAME: cannot create /NAME.shm: 17(File "
                                 "exists); remove /dev/shm/NAME.shm if nobody uses it\n"));
    EXPECT_EQ(ReadFile(name_.Path()), "another's");
    EXPECT_EQ(ReadFile(folder_.Path("OUT")), "precious");
}

TEST_F(RefusalOfARing, StagesTakeNoRingOfAnotherSize) {
    (void)OpenRing({name_.Name(), 100000, 0, false, 0});
    const std::string before = ReadFile(name_.Path());
    for (std::vector<std::string> arguments : {std::vector<std::string>{"produce"},
                                               {"node", "--node", "1"},
                                               {"consume", "--node", "1", "--output", "OUT"}}) {
        const std::string verb = arguments.front();
        arguments.insert(arguments.end(), {"--name", "NAME", "--size", "99999"});
        const CommandResult result = RunQev(Filled(arguments));
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(
            result.err,
            Filled("qev " + verb + ": ring NAME exists with a size of 100000 bytes, not 99999\n"));
        EXPECT_TRUE(ReadFile(name_.Path()) == before);
        EXPECT_EQ(ReadFile(folder_.Path("OUT")), "precious");
    }
}

TEST_F(RefusalOfARing, StagesTakeNoRingOfAnotherPacketLimit) {
    (void)OpenRing({name_.Name(), 100000, 0, false, 3});
    const CommandResult result =
        RunQev(Filled({"produce", "--name", "NAME", "--size", "100000", "--max-frames", "5"}));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              Filled("qev produce: ring NAME exists with another packet limit: 4 instead of 6\n"));
}

class RefusalOfPermission : public Refusal {};

TEST_F(RefusalOfPermission, InputThatMustNotBeReadIsRefused) {
    ASSERT_EQ(chmod(folder_.Path("IN").c_str(), 0), 0);
    const CommandResult result = RunQev(Filled(Pipeline({})), {-1, -1, -1, true});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, Filled("qev pipeline: cannot read IN: 13(Permission denied)\n"));
    EXPECT_FALSE(Exists(name_.Path()));
}

TEST_F(RefusalOfPermission, OutputThatMustNotBeWrittenIsRefused) {
    ASSERT_EQ(chmod(folder_.Path("OUT").c_str(), 0444), 0);
    ASSERT_EQ(chmod(folder_.Path("DIR").c_str(), 0555), 0);
    CommandResult result = RunQev(Filled(Pipeline({})), {-1, -1, -1, true});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, Filled("qev pipeline: cannot write OUT: 13(Permission denied)\n"));
    result = RunQev(Filled({"pipeline", "--input", "IN", "--output", "DIR/file", "--name", "NAME"}),
                    {-1, -1, -1, true});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, Filled("qev pipeline: cannot write DIR/file: 13(Permission denied)\n"));
    EXPECT_EQ(ReadFile(folder_.Path("OUT")), "precious");
    EXPECT_FALSE(Exists(name_.Path()));
}

TEST(Version, IsNameAndNumber) {
    EXPECT_EQ(RunQev({"--version"}).out, "qev 1.0.0\n");
}

}  // namespace
}  // namespace qel::test
