#include "Scenes.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "Sys.h"

namespace qel::test {
namespace {

void Create(Actor& actor, CallFaults& /*faults*/) {
    actor.Construct(true, kDataSize);
}

void Attach(Actor& actor, CallFaults& /*faults*/) {
    actor.Construct(true);
}

void Open(Actor& actor, CallFaults& /*faults*/) {
    actor.Construct(false);
}

void Destroy(Actor& actor, CallFaults& /*faults*/) {
    actor.Destroy();
}

/// For a record that leads nowhere.
template <void (*Construct)(Actor&, CallFaults&)>
void BeRefused(Actor& actor, CallFaults& faults) {
    try {
        Construct(actor, faults);
    } catch (const std::runtime_error&) {
        return;
    }
    throw std::logic_error("not refused");
}

void Read(Actor& actor, CallFaults& /*faults*/) {
    actor.Block().LockForRead();
    actor.Block().UnlockForRead();
}

void TryRead(Actor& actor, CallFaults& /*faults*/) {
    if (!actor.Block().TryLockForRead()) {
        throw std::logic_error("not locked");
    }
    actor.Block().UnlockForRead();
}

void Write(Actor& actor, CallFaults& faults) {
    actor.Block().LockForWrite();
    actor.WriteData(faults);
    actor.Block().UnlockForWrite();
}

void TryWrite(Actor& actor, CallFaults& faults) {
    if (!actor.Block().TryLockForWrite()) {
        throw std::logic_error("not locked");
    }
    actor.WriteData(faults);
    actor.Block().UnlockForWrite();
}

void DestroyReading(Actor& actor, CallFaults& /*faults*/) {
    actor.Block().LockForRead();
    actor.Destroy();
}

void DestroyWriting(Actor& actor, CallFaults& /*faults*/) {
    actor.Block().LockForWrite();
    actor.Destroy();
}

}  // namespace

Actor::Actor(std::string name, Role role) : name_(std::move(name)) {
    if (role != Role::None) {
        Construct(role != Role::Reader, role == Role::Creator ? kDataSize : 0);
    }
    if (role == Role::Creator) {
        block_->LockForWrite();
        std::fill_n(block_->GetDataForWrite(), kDataSize, kOld);
        block_->UnlockForWrite();
    }
}

void Actor::Construct(bool create, std::uint64_t size) {
    block_ = std::make_unique<SharedMemoryBlock>(std::make_shared<Sys>(), name_, create, size);
}

void Actor::WriteData(CallFaults& faults) {
    const auto write = [&](std::uint64_t length, const char* what) {
        std::fill_n(block_->GetDataForWrite(), length, kNew);
        if (const auto verdict = faults.Note("data", what); verdict.before) {
            verdict.before();
        }
    };
    write(1, "one byte");
    write(kDataSize / 2, "half");
    write(kDataSize, "all");
}

const std::vector<Scene>& Scenes() {
    static const std::vector<Scene> scenes{
        {"CreatingWithoutALockFile", "creates a block, there is no lock file", World::NoLockFile,
         Role::None, false, &Create},
        {"CreatingOverAnEmptyLockFile", "creates a block over an empty lock file",
         World::EmptyLockFile, Role::None, false, &Create},
        {"CreatingOverAShortLockFile", "creates a block over a lock file of 16 bytes",
         World::ShortLockFile, Role::None, false, &Create},
        {"CreatingOverALongLockFile", "creates a block over a lock file of 100 bytes",
         World::LongLockFile, Role::None, false, &Create},
        {"CreatingOverALockFileWithoutARecord", "creates a block over a lock file without a record",
         World::NoRecord, Role::None, false, &Create},
        {"CreatingOverAStaleRecord", "creates a block over a stale record", World::StaleRecord,
         Role::None, false, &Create},
        {"CreatingOverAReusedDescriptor",
         "creates a block over a record whose descriptor number is in use again",
         World::ReusedDescriptor, Role::None, false, &Create},
        {"AttachingAsAWriter", "attaches to a block as a writer", World::LiveBlock, Role::None,
         false, &Attach},
        {"OpeningAsAReader", "opens a block as a reader", World::LiveBlock, Role::None, true,
         &Open},
        {"BeingRefusedAsAWriter", "is refused as a writer without a size", World::StaleRecord,
         Role::None, false, &BeRefused<&Attach>},
        {"BeingRefusedAsAReader", "is refused as a reader", World::StaleRecord, Role::None, true,
         &BeRefused<&Open>},
        {"ReadingAsTheCreator", "reads, as the creator", World::NoLockFile, Role::Creator, true,
         &Read},
        {"ReadingAsAWriter", "reads, as another writer", World::LiveBlock, Role::Writer, true,
         &Read},
        {"ReadingAsAReader", "reads, as a reader", World::LiveBlock, Role::Reader, true, &Read},
        {"TryingToReadAsTheCreator", "tries to read, as the creator", World::NoLockFile,
         Role::Creator, true, &TryRead},
        {"TryingToReadAsAWriter", "tries to read, as another writer", World::LiveBlock,
         Role::Writer, true, &TryRead},
        {"TryingToReadAsAReader", "tries to read, as a reader", World::LiveBlock, Role::Reader,
         true, &TryRead},
        {"WritingAsTheCreator", "writes, as the creator", World::NoLockFile, Role::Creator, false,
         &Write},
        {"WritingAsAWriter", "writes, as another writer", World::LiveBlock, Role::Writer, false,
         &Write},
        {"TryingToWriteAsTheCreator", "tries to write, as the creator", World::NoLockFile,
         Role::Creator, false, &TryWrite},
        {"TryingToWriteAsAWriter", "tries to write, as another writer", World::LiveBlock,
         Role::Writer, false, &TryWrite},
        {"DestroyingAsTheCreator", "destroys its handle, as the creator", World::NoLockFile,
         Role::Creator, true, &Destroy},
        {"DestroyingAsAWriter", "destroys its handle, as another writer", World::LiveBlock,
         Role::Writer, true, &Destroy},
        {"DestroyingAsAReader", "destroys its handle, as a reader", World::LiveBlock, Role::Reader,
         true, &Destroy},
        {"DestroyingWhileReading", "destroys its handle while it reads", World::LiveBlock,
         Role::Reader, true, &DestroyReading},
        {"DestroyingWhileWriting", "destroys its handle while it writes, as the creator",
         World::NoLockFile, Role::Creator, false, &DestroyWriting}};
    return scenes;
}

const Scene& SceneNamed(const std::string& name) {
    for (const Scene& scene : Scenes()) {
        if (scene.name == name) {
            return scene;
        }
    }
    throw std::logic_error("no scene " + name);
}

std::vector<Scene> TouchingScenes() {
    std::vector<Scene> scenes;
    std::copy_if(
        Scenes().begin(), Scenes().end(), std::back_inserter(scenes), [](const Scene& scene) {
            return scene.role == Role::None && scene.world != World::EmptyLockFile &&
                   scene.world != World::ShortLockFile && scene.world != World::LongLockFile;
        });
    return scenes;
}

}  // namespace qel::test
