#include <gtest/gtest.h>
#include <unistd.h>

#include "FileText.h"

namespace qel::test {
namespace {

TEST(FileText, IsAllThatTheFileSays) {
    const std::string text = FileText("/proc/self/stat");
    EXPECT_EQ(text.find(std::to_string(getpid()) + " ("), 0U);
    EXPECT_EQ(text.back(), '\n');
}

TEST(FileText, IsNothingOfAFileThatCannotBeOpened) {
    EXPECT_EQ(FileText("/proc/self/none"), "");
}

TEST(FileText, IsNothingOfAFileThatCanBeOpenedAndNotBeRead) {
    EXPECT_EQ(FileText("/proc/self"), "");  // as that of a process that has ended meanwhile
}

}  // namespace
}  // namespace qel::test
