#include <gmock/gmock.h>

#include "ChildProcess.h"

int main(int argc, char** argv) {
    qel::test::PlayRoleIfAsked(argc, argv);
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
