// A program that knows nothing of the library, and two modules that bring it along.

#include <gtest/gtest.h>

#include "OpenModule.h"

namespace qel::test {
namespace {

class RegistryOfAHost : public testing::Test {
protected:
    const Module& first_ = OpenModule(QEV_FIRST_MODULE, QEV_BINDING);
    const Module& second_ = OpenModule(QEV_SECOND_MODULE, QEV_BINDING);
};

TEST_F(RegistryOfAHost, IsOneObjectForAllModules) {
    EXPECT_EQ(first_.registries, second_.registries);
    EXPECT_TRUE(first_.knowsReader("DefaultIF"));
    EXPECT_TRUE(second_.knowsReader("SharedMemoryReaderIF"));
}

TEST_F(RegistryOfAHost, ShowsAModuleWhatAnotherRegisters) {
    EXPECT_FALSE(second_.knowsReader("reader of the first module"));
    first_.addReader("reader of the first module", 11);
    EXPECT_TRUE(second_.knowsReader("reader of the first module"));
    EXPECT_EQ(second_.sizeOfReader("reader of the first module"), 11U);
}

TEST_F(RegistryOfAHost, OfAModulesOwnInterfaceIsOneObjectToo) {
#ifdef __clang__
    if (QEV_BINDING == RTLD_LOCAL) {
        GTEST_SKIP() << "clang++ makes no unique symbols";
    }
#endif
    EXPECT_EQ(first_.codecs, second_.codecs);
    second_.addCodec("codec of the second module");
    EXPECT_TRUE(first_.knowsCodec("codec of the second module"));
    EXPECT_EQ(first_.rateOfCodec("codec of the second module", 13), 13);
}

}  // namespace
}  // namespace qel::test
