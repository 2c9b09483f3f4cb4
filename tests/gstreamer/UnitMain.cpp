/// The elements' parts, without pipelines.
#include <gmock/gmock.h>
#include <gst/gst.h>

#include "WithoutPlugins.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    qel::test::InitWithoutPlugins();
    return RUN_ALL_TESTS();
}
