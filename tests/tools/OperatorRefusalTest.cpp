// Bad arguments of the verbs that look at objects.

#include "Refusal.h"

namespace qel::test {
namespace {

using Row = RefusalRow;

INSTANTIATE_TEST_SUITE_P(
    Ls, Refusal,
    testing::Values(Row{{"ls", "-hd"}, "qev: The following argument was not expected: -hd"},
                    Row{{"-help"}, "qev: The following argument was not expected: -help"},
                    Row{{"ls", "NAME"}, "qev ls: The following argument was not expected: NAME"},
                    Row{{"ls", "--all"},
                        "qev ls: The following argument was not expected: --all"}));

INSTANTIATE_TEST_SUITE_P(
    Inspect, Refusal,
    testing::Values(Row{{"inspect", ""}, "qev inspect: the name of a ring must not be empty"},
                    Row{{"inspect", "a/b"},
                        "qev inspect: the name of a ring must not contain a slash: a/b"},
                    Row{{"inspect", "NAME", "--nodes", "1"},
                        "qev inspect: --nodes: Value 1 not in range 2 to 5"},
                    Row{{"inspect", "NAME", "--nodes", "6"},
                        "qev inspect: --nodes: Value 6 not in range 2 to 5"},
                    Row{{"inspect", "NAME", "--count", "-1"},
                        "qev inspect: --count: Value -1 not in range 1 to 1000000"},
                    Row{{"inspect", "NAME", "--bytes", "x"},
                        "qev inspect: --bytes: Value x is not a number of bytes"}));

INSTANTIATE_TEST_SUITE_P(
    ReserveAndSeal, Refusal,
    testing::Values(
        Row{{"reserve", "NAME"}, "qev reserve: --size is required"},
        Row{{"reserve", "NAME", "--size", "0"}, "qev reserve: the size of a ring must not be 0"},
        Row{{"reserve", "a/b", "--size", "1"},
            "qev reserve: the name of a ring must not contain a slash: a/b"},
        Row{{"reserve", "NAME", "--size", "1", "--owner", "no such user"},
            "qev reserve: there is no user no such user"},
        Row{{"reserve", "NAME", "--size", "1", "--owner", ""}, "qev reserve: there is no user "},
        Row{{"reserve", "NAME", "--size", "1", "--owner", "4294967295"},
            "qev reserve: there is no user 4294967295"},
        Row{{"reserve", "NAME", "--size", "1", "--group", "-1"},
            "qev reserve: there is no group -1"},
        Row{{"reserve", "NAME", "--size", "1", "--group", "1x"},
            "qev reserve: there is no group 1x"},
        Row{{"reserve", "NAME", "--size", "1", "--mode", "8"},
            "qev reserve: --mode: 8 is not an octal number from 0 to 0777"},
        Row{{"reserve", "NAME", "--size", "1", "--mode", ""},
            "qev reserve: --mode:  is not an octal number from 0 to 0777"},
        Row{{"reserve", "NAME", "--size", "1", "--mode", "1666"},
            "qev reserve: --mode: 1666 is not an octal number from 0 to 0777"},
        Row{{"reserve", "NAME", "--size", "1", "--mode", "u=rw"},
            "qev reserve: --mode: u=rw is not an octal number from 0 to 0777"},
        Row{{"seal", ""}, "qev seal: the name of a block must not be empty"},
        Row{{"seal", "a/b"}, "qev seal: the name of a block must not contain a slash: a/b"}));

}  // namespace
}  // namespace qel::test
