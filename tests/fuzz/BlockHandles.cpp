/// Random sequences of operations on two handles of one block, or of one after the other. They do
/// what the rules of opening, locking and access say.
#include <algorithm>
#include <optional>

#include "BlockHandle.h"
#include "CapturedLog.h"
#include "Ends.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "Thrown.h"
#include "UniqueBlockName.h"

namespace qel::fuzz {
namespace {

using test::Held;

constexpr unsigned kMostSteps = 100;
constexpr unsigned kLargest = 10000;

class Run {
public:
    void Do(Input& input);

private:
    void Open(Input& input, unsigned place);
    void OpenReader(unsigned place);
    void OpenWriter(unsigned place, std::uint64_t size);
    void Close(unsigned place);
    void Operate(Input& input, BlockHandle& handle, Held others);
    void Compare() const;

    [[nodiscard]] Held HeldBy(unsigned place) const {
        return handles_.at(place) ? handles_.at(place)->Lock() : Held::No;
    }

    test::UniqueBlockName name_;
    std::array<std::optional<BlockHandle>, 2> handles_;
    std::shared_ptr<Bytes> content_;  ///< of the block that can be found; null if there is none
    unsigned creator_ = 0;            ///< the handle that has made it
};

void Run::Do(Input& input) {
    const unsigned place = input.Choice(2);
    auto& handle = handles_.at(place);
    const unsigned kind = input.Choice(16);
    if (!handle) {
        Open(input, place);
    } else if (kind == 0) {
        Close(place);
    } else {
        Operate(input, *handle, HeldBy(1 - place));
    }
    Compare();
}

void Run::Open(Input& input, unsigned place) {
    const Held others = HeldBy(1 - place);
    const unsigned kind = input.Choice(4);
    if (kind == 0 && others != Held::Exclusive) {
        OpenReader(place);
    } else if (kind != 0 && others == Held::No) {
        OpenWriter(place, kind == 1 ? 0 : 1 + input.Amount(kLargest));
    }
}

/// The number of a descriptor that has been closed may name something else by now.
void RequireNoBlock(const std::string& text) {
    const std::string beginning = "failed to open shared memory: ";
    Require(text == beginning + "file does not exist" ||
                text == beginning + "failed to read lockFile to get metadata" ||
                text == beginning +
                            "shared memory file properties do not match lock file metadata, "
                            "assuming stale file descriptor",
            "a block that is gone is not opened");
}

void Run::OpenReader(unsigned place) {
    std::unique_ptr<SharedMemoryBlockReaderIF> reader;
    const std::string text =
        test::Thrown([&] { reader = std::make_unique<SharedMemoryBlockReader>(name_.Name()); });
    if (!content_) {
        return RequireNoBlock(text);
    }
    Require(reader != nullptr, "a block that lives is opened");
    handles_.at(place).emplace(std::move(reader), content_);
}

void Run::OpenWriter(unsigned place, std::uint64_t size) {
    std::unique_ptr<SharedMemoryBlockWriterIF> writer;
    const std::string text = test::Thrown(
        [&] { writer = std::make_unique<SharedMemoryBlockWriter>(name_.Name(), size); });
    if (!content_ && size == 0) {
        return RequireNoBlock(text);
    }
    Require(writer != nullptr, "a block is made if there is none");
    if (!content_) {
        content_ = std::make_shared<Bytes>(size);
        creator_ = place;
    }
    handles_.at(place).emplace(std::move(writer), content_);
}

void Run::Close(unsigned place) {
    handles_.at(place).reset();
    if (content_ && creator_ == place) {
        content_.reset();
    }
}

void Run::Operate(Input& input, BlockHandle& handle, Held others) {
    switch (input.Choice(8)) {
        case 0:
        case 1:
            return handle.LockForRead(input.Flag(), others);
        case 2:
            return handle.UnlockForRead();
        case 3:
        case 4:
            return handle.LockForWrite(input.Flag(), others);
        case 5:
            return handle.UnlockForWrite();
        case 6:
            return handle.ReadData();
        default:
            return handle.WriteData(input);
    }
}

void Run::Compare() const {
    for (const auto& handle : handles_) {
        if (handle) {
            handle->CompareAccess();
        }
    }
    if (::access(name_.LockPath().c_str(), F_OK) == 0) {
        Require(test::LockOn(name_.LockPath()) == std::max(HeldBy(0), HeldBy(1)),
                "others see the lock as it is held");
    }
}

}  // namespace
}  // namespace qel::fuzz

int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using namespace qel;
    fuzz::Input input(data, size);
    const test::CapturedLog log;
    {
        fuzz::Run run;
        for (unsigned i = 0; i < fuzz::kMostSteps && !input.IsUsedUp(); ++i) {
            run.Do(input);
        }
    }
    fuzz::Require(test::HoldingsOf("qev-test-") == test::Holdings{},
                  "neither descriptor nor mapping is left");
    return 0;
}
