#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

#include "BuildKind.h"
#include "LongForm.h"

/// Fixes the seed and the number of cases of the properties; RC_PARAMS can say otherwise.
/// QEV_TEST_LONG=1 runs many more cases.
int main(int argc, char** argv) {
    const int cases = (qel::test::kSlowBuild ? 2000 : 10000) * (qel::test::IsLongForm() ? 50 : 1);
    const char* const given = std::getenv("RC_PARAMS");
    const std::string parameters =
        "seed=20240229 max_size=300 max_success=" + std::to_string(cases) + " " +
        (given == nullptr ? "" : given);
    ::setenv("RC_PARAMS", parameters.c_str(), 1);
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
