#include <gmock/gmock.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "ChildProcess.h"
#include "OpenBuffer.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

/// Descriptors that this process has open.
std::ptrdiff_t OpenDescriptors() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::distance(begin(descriptors), end(descriptors));
}

/// Mappings of this process whose line holds `name`.
std::ptrdiff_t Mappings(const std::string& name) {
    std::ifstream maps("/proc/self/maps");
    std::ptrdiff_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find(name) == std::string::npos ? 0 : 1;
    }
    return count;
}

/// Descriptors of this process that lead to a path that holds `name`.
std::ptrdiff_t DescriptorsOf(const std::string& name) {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::count_if(begin(descriptors), end(descriptors), [&name](const auto& entry) {
        std::error_code gone;  // the listing's own descriptor is
        const auto path = std::filesystem::read_symlink(entry.path(), gone).string();
        return path.find(name) != std::string::npos;
    });
}

/// Says how many descriptors and mappings of a ring came with its start.
int Heir(const Arguments& arguments) {
    std::cout << DescriptorsOf(arguments.at(0)) << ' ' << Mappings(arguments.at(0)) << std::endl;
    return EXIT_SUCCESS;
}
const RegisterRole kHeir("heir", Heir);

TEST(ProcessResources, BufferKeepsNoDescriptorAndOneMapping) {
    const UniqueRingName name;
    const auto before = OpenDescriptors();
    {
        const auto buffer = OpenBuffer({name.Name(), 100000, 0, false, 0});
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_EQ(Mappings(name.ObjectName()), 1);
        const auto other = OpenBuffer({name.Name(), 100000, 1, true, 0});
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_EQ(Mappings(name.ObjectName()), 2);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Mappings(name.ObjectName()), 0);
    EXPECT_TRUE(std::filesystem::exists(name.Path()));
}

TEST(ProcessResources, RefusedBufferKeepsNoDescriptorAndNoMapping) {
    const UniqueRingName name;
    const auto before = OpenDescriptors();
    // More than an address space holds: sized by the system, but not mapped.
    const auto result = SharedMemLibFactory::Create()->GetSharedPacketBuffer(
        {name.Name(), std::uint64_t{1} << 60U, 0, false, 0});
    EXPECT_EQ(result.status, SMStatusCode::SHARED_MEMORY_FAILURE);
    EXPECT_EQ(result.buffer, nullptr);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Mappings(name.ObjectName()), 0);
}

TEST(ProcessResources, ProgramStartedByAClientInheritsNothingOfARing) {
    const UniqueRingName name;
    const auto buffer = OpenBuffer({name.Name(), 100000, 0, false, 0});
    ChildProcess heir("heir", {name.ObjectName()});
    EXPECT_EQ(heir.Hear(), "0 0");
    EXPECT_EQ(heir.Wait(), EXIT_SUCCESS);
}

}  // namespace
}  // namespace qel::test
