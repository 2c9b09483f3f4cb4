/// The elements, each under a harness in place of its neighbours.
#include <gmock/gmock.h>
#include <gst/gst.h>

#include "ChildProcess.h"
#include "QevSink.h"
#include "QevSrc.h"
#include "WithoutPlugins.h"

int main(int argc, char** argv) {
    qel::test::InitWithoutPlugins();
    GST_ELEMENT_REGISTER(qevsink, nullptr);
    GST_ELEMENT_REGISTER(qevsrc, nullptr);
    qel::test::PlayRoleIfAsked(argc, argv);
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
