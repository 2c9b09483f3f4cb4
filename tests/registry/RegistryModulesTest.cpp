// A program that is linked with the library, and two modules that it opens for themselves alone.

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <string>

#include "Codec.h"
#include "InterfaceFactory.h"
#include "OpenModule.h"
#include "SizedReader.h"

namespace qel::test {
namespace {

using Reader = SharedMemoryBlockReaderIF;
using Writer = SharedMemoryBlockWriterIF;

class RegistryOfTheProcess : public testing::Test {
protected:
    const Module& first_ = OpenModule(QEV_FIRST_MODULE, RTLD_LOCAL);
    const Module& second_ = OpenModule(QEV_SECOND_MODULE, RTLD_LOCAL);
};

TEST_F(RegistryOfTheProcess, IsOneObjectForTheProgramTheLibraryAndEveryModule) {
    const std::array<const void*, 4> mine = {
        &IF<Reader>::ifConstructors<>, &IF<Reader>::ifConstructors<std::string_view>,
        &IF<Writer>::ifConstructors<>,
        &IF<Writer>::ifConstructors<std::string_view, unsigned long>};
    EXPECT_EQ(first_.registries, mine);
    EXPECT_EQ(second_.registries, mine);
    // The library filled, and the factory inside it looks into, just this object.
    EXPECT_EQ(IF<Reader>::ifConstructors<>.count("SharedMemoryReaderIF"), 1U);
}

TEST_F(RegistryOfTheProcess, ShowsTheProgramAndTheOtherModuleWhatAModuleRegisters) {
    first_.addReader("reader of the first module", 11);
    EXPECT_TRUE(second_.knowsReader("reader of the first module"));
    EXPECT_EQ(second_.sizeOfReader("reader of the first module"), 11U);
    EXPECT_EQ((InterfaceFactory::Create<Reader, std::string_view>("reader of the first module", "")
                   ->Size()),
              11U);
    IF<Reader>::ifConstructors<std::string_view>.erase("reader of the first module");
    EXPECT_FALSE(first_.knowsReader("reader of the first module"));
}

TEST_F(RegistryOfTheProcess, ShowsModulesWhatTheProgramRegisters) {
    IF<Reader>::ifConstructors<std::string_view>["reader of the program"] = [](std::string_view) {
        return std::make_unique<SizedReader>(12);
    };
    EXPECT_EQ(first_.sizeOfReader("reader of the program"), 12U);
    EXPECT_EQ(second_.sizeOfReader("reader of the program"), 12U);
    IF<Reader>::ifConstructors<std::string_view>.erase("reader of the program");
}

/// File of the library or program that a function stands in.
template <typename Function>
std::string FileOf(Function* function) {
    Dl_info found{};
    ::dladdr(reinterpret_cast<const void*>(function), &found);
    return found.dli_fname == nullptr ? "" : found.dli_fname;
}

TEST(ExportedFactoryFunctions, StandInTheLibrary) {
    using testing::HasSubstr;
    const std::string library = "libqev_SharedMemory.so";
    EXPECT_THAT(FileOf(&InterfaceFactory::Create<Reader>), HasSubstr(library));
    EXPECT_THAT(FileOf(&InterfaceFactory::Create<Reader, std::string_view>), HasSubstr(library));
    EXPECT_THAT(FileOf(&InterfaceFactory::Create<Writer>), HasSubstr(library));
    EXPECT_THAT(FileOf(&InterfaceFactory::Create<Writer, std::string_view, unsigned long>),
                HasSubstr(library));
}

}  // namespace
}  // namespace qel::test
