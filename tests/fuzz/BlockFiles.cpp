/// A forged lock file and a forged memory file, opened by readers and writers, locked, read and
/// unlocked. What is refused is refused with the reason that the rules give, and nothing is left.
#include <functional>
#include <memory>

#include "CapturedLog.h"
#include "Ends.h"
#include "ForgedBlock.h"
#include "LockFileRun.h"
#include "ProcessState.h"
#include "SharedMemoryBlock.h"
#include "Sys.h"
#include "Thrown.h"

namespace qel::fuzz {
namespace {

constexpr unsigned kMostSteps = 12;
constexpr unsigned kMostLockSteps = 40;
constexpr std::uint64_t kTouched = 4096;

std::unique_ptr<SharedMemoryBlock> Open(const ForgedBlock& forged, bool create, std::uint64_t size,
                                        const std::string& expected) {
    std::unique_ptr<SharedMemoryBlock> block;
    const std::string text = test::Thrown([&] {
        block = std::make_unique<SharedMemoryBlock>(std::make_shared<Sys>(), forged.Name(), create,
                                                    size);
    });
    if (text != expected) {
        Fail("\"" + text + "\" instead of \"" + expected + "\"");
    }
    Require(test::LockOn(forged.LockPath()) == test::Held::No, "opening leaves no lock");
    return block;
}

/// Reads both ends of the data.
void ReadEnds(SharedMemoryBlock& block) {
    block.LockForRead();
    const unsigned char* const data = block.GetDataForRead();
    Touch(data, std::min(block.Size(), kTouched));
    if (block.Size() != 0) {
        Touch(data + block.Size() - 1, 1);
    }
    block.UnlockForRead();
}

void WriteEnds(SharedMemoryBlock& block) {
    block.LockForWrite();
    unsigned char* const data = block.GetDataForWrite();
    if (block.Size() != 0) {
        data[0] = 1;
        data[block.Size() - 1] = 2;
    }
    block.UnlockForWrite();
}

void OpenAsReader(const ForgedBlock& forged) {
    const std::string refusal = forged.Refusal(false);
    const std::uint64_t size = refusal.empty() ? forged.Size() : 0;
    const auto block =
        Open(forged, false, 0,
             refusal.empty() ? "nothing thrown" : "failed to open shared memory: " + refusal);
    if (block) {
        Require(block->Size() == size, "the block is as large as its file");
        ReadEnds(*block);
    }
}

/// Sizes that are soon made, and such as are too large for any file or mapping.
std::uint64_t RequestedSize(Input& input) {
    constexpr std::uint64_t kTop = std::uint64_t{1} << 63U;
    switch (input.Choice(4)) {
        case 0:
            return 0;
        case 1:
            return kTop - 8 + input.Choice(16);
        case 2:
            return 0 - std::uint64_t{input.Take<std::uint8_t>()};
        default:
            return input.Amount(10000);
    }
}

/// Why no block of `size` bytes is made; empty if one is.
std::string CreationRefusal(std::uint64_t size) {
    constexpr std::uint64_t kLargestFile = (std::uint64_t{1} << 63U) - 1;
    if (size < 10000) {
        return "";
    }
    const bool fitsFile = size <= kLargestFile - 8;
    return std::string("failed to create shared memory: ") +
           (fitsFile ? "failed to map shared memory\n" : "failed to ftruncate shared memory");
}

void OpenAsWriter(const ForgedBlock& forged, std::uint64_t size) {
    const std::string refusal = forged.Refusal(true);
    const std::uint64_t expectedSize = refusal.empty() ? forged.Size() : size;
    std::string expected;
    if (!refusal.empty()) {
        expected = size == 0 ? "failed to open shared memory: " + refusal : CreationRefusal(size);
    }
    const auto block = Open(forged, true, size, expected.empty() ? "nothing thrown" : expected);
    if (block) {
        Require(block->Size() == expectedSize, "the block is as large as it was or is to be");
        ReadEnds(*block);
        WriteEnds(*block);
    }
}

void UseLockFile(const ForgedBlock& forged, Input& input) {
    LockFileRun run(forged.LockPath(), forged.LockImage());
    for (unsigned i = input.Choice(kMostLockSteps); i != 0 && !input.IsUsedUp(); --i) {
        run.Do(input);
    }
}

void Run(Input& input) {
    ForgedBlock forged(input);
    for (unsigned i = 0; i < kMostSteps && !input.IsUsedUp(); ++i) {
        switch (input.Choice(4)) {
            case 0:
                OpenAsReader(forged);
                break;
            case 1:
                OpenAsWriter(forged, RequestedSize(input));
                break;
            case 2:
                UseLockFile(forged, input);
                break;
            default:
                forged.Forge(input);
        }
    }
}

}  // namespace
}  // namespace qel::fuzz

int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    qel::fuzz::Input input(data, size);
    const qel::test::CapturedLog log;
    const int next = qel::test::NextDescriptor();
    qel::fuzz::Run(input);
    qel::fuzz::Require(qel::test::NextDescriptor() == next, "no descriptor is left open");
    qel::fuzz::Require(qel::test::HoldingsOf("qev-test-") == qel::test::Holdings{},
                       "no mapping is left");
    return 0;
}
