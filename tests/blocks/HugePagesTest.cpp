#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "HugePages.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

constexpr std::uintptr_t kHugePage = 2U << 20U;
constexpr std::uint64_t kLength = 3 * kHugePage + 8;

unsigned char* Map() {
    void* const start =
        mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return start == MAP_FAILED ? nullptr : static_cast<unsigned char*>(start);
}

bool IsMapped(const unsigned char* address) {
    const auto page = reinterpret_cast<std::uintptr_t>(address) / 4096 * 4096;
    unsigned char isPresent = 0;
    return mincore(reinterpret_cast<void*>(page), 1, &isPresent) == 0;
}

TEST(HugePages, MappingIsMovedToWhereItCanHaveThemWithAllItsBytes) {
    unsigned char* const start = Map();
    ASSERT_NE(start, nullptr);
    start[0] = 1;
    start[kLength - 1] = 2;
    unsigned char* const moved = MoveForHugePages(start, kLength);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(moved) % kHugePage, 0U);
    EXPECT_EQ(moved[0], 1);
    EXPECT_EQ(moved[kLength - 1], 2);
    EXPECT_EQ(MoveForHugePages(moved, kLength), moved) << "it is there already";
    UseHugePages(moved, kLength);
    EXPECT_EQ(moved[0], 1);
    EXPECT_EQ(moved[kLength - 1], 2);
    EXPECT_EQ(munmap(moved, kLength), 0);
    EXPECT_FALSE(IsMapped(moved));
}

TEST(HugePages, WhatCannotBeMovedStaysWhereItIs) {
    unsigned char* const start = Map();
    ASSERT_NE(start, nullptr);
    EXPECT_EQ(MoveForHugePages(start + 1, kLength), start + 1);
    EXPECT_EQ(MoveForHugePages(start + 1, ~std::uint64_t{0} - kHugePage), start + 1);
    UseHugePages(start + 1, kLength);
    start[0] = 1;
    EXPECT_EQ(munmap(start, kLength), 0);
}

TEST(LargeBlock, HoldsWhatWasWrittenForAllWhoHaveIt) {
    const UniqueBlockName name;
    for (const std::uint64_t size : {kWorthHugePages - 9, kWorthHugePages, 4 * kHugePage + 5}) {
        SharedMemoryBlockWriter writer(name.Name(), size);
        SharedMemoryBlockReader reader(name.Name());
        ASSERT_EQ(reader.Size(), size);
        reader.Lock();
        EXPECT_TRUE(std::all_of(reader.GetData(), reader.GetData() + size,
                                [](unsigned char byte) { return byte == 0; }));
        reader.Unlock();
        writer.LockForWrite();
        std::memset(writer.GetDataForWrite(), 7, size);
        writer.UnlockForWrite();
        reader.Lock();
        EXPECT_TRUE(std::all_of(reader.GetData(), reader.GetData() + size,
                                [](unsigned char byte) { return byte == 7; }));
        reader.Unlock();
    }
}

TEST(LargeBlockDeathTest, CannotBeTouchedOutsideALock) {
    const UniqueBlockName name;
    SharedMemoryBlockWriter writer(name.Name(), 4 * kHugePage);
    writer.LockForWrite();
    unsigned char* const data = writer.GetDataForWrite();
    data[3 * kHugePage] = 1;
    writer.UnlockForWrite();
    EXPECT_DEATH(data[3 * kHugePage] = 2, "");
}

}  // namespace
}  // namespace qel::test
