#include "Stage.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <stdexcept>

#include "Files.h"
#include "Finding.h"
#include "Leftovers.h"
#include "MappingWatch.h"
#include "ProcessState.h"
#include "Sys.h"

namespace qel::test {
namespace {

[[noreturn]] void Die() {
    ::kill(::getpid(), SIGKILL);
    ::pause();
    std::abort();
}

void Plan(CallFaults& faults, const Moment& moment) {
    if (moment.kind == Moment::Kind::BeforeCall) {
        faults.BeforeNth(moment.operation, moment.nth, &Die);
    } else if (moment.kind == Moment::Kind::AfterCall) {
        faults.AfterNth(moment.operation, moment.nth, &Die);
    }
}

void NameFiles(CallFaults& faults, const UniqueBlockName& name, const std::string& lockFile) {
    faults.Alias(name.LockPath(), "LOCK");
    faults.Alias("/memfd:" + name.MemoryName() + " (deleted)", "MEMORY");
    faults.Alias("/memfd:qev-test-other (deleted)", "OTHER");
    if (lockFile.size() == 40) {
        const SharedMemoryMetadata record = RecordIn(lockFile);
        faults.Alias(BlockMemoryPath(record.pid, record.fd), "ANNOUNCED");
    }
}

}  // namespace

Stage::Stage(const Scene& scene) : scene_(scene) {
    MakeWorld();
}

Stage::~Stage() {
    if (other_ != -1) {
        ::close(other_);
    }
}

void Stage::MakeWorld() {
    switch (scene_.world) {
        case World::NoLockFile:
            break;
        case World::EmptyLockFile:
            WriteLockFile(0);
            break;
        case World::ShortLockFile:
            WriteLockFile(16);
            break;
        case World::LongLockFile:
            WriteLockFile(100);
            break;
        case World::NoRecord:
            WriteLockFile(40);
            break;
        case World::StaleRecord:
            MakeStale();
            break;
        case World::ReusedDescriptor:
            ReuseDescriptor();
            break;
        case World::LiveBlock:
            creator_ = std::make_unique<SharedMemoryBlock>(std::make_shared<Sys>(), name_.Name(),
                                                           true, kDataSize);
            creator_->LockForWrite();
            std::memset(creator_->GetDataForWrite(), kOld, kDataSize);
            creator_->UnlockForWrite();
            OpenSurvivors();
            break;
    }
}

void Stage::WriteLockFile(std::size_t length) const {
    WriteFile(name_.LockPath(), std::string(length, '\0'));
}

void Stage::OpenSurvivors() {
    const auto open = [this](bool write) {
        return std::make_unique<SharedMemoryBlock>(std::make_shared<Sys>(), name_.Name(), write, 0);
    };
    reader_ = open(false);
    writer_ = open(true);
}

void Stage::MakeStale() {
    ChildProcess creator([this](const Conversation& parent) {
        const Actor actor(name_.Name(), Role::Creator);
        parent.Say("made");
        (void)parent.Hear();
        return 0;
    });
    if (creator.Hear() != "made") {
        throw std::runtime_error("no block");
    }
    OpenSurvivors();
}

void Stage::ReuseDescriptor() {
    Actor creator(name_.Name(), Role::Creator);
    OpenSurvivors();
    creator.Destroy();
    const int file = ::memfd_create("qev-test-other", MFD_CLOEXEC);
    other_ = Record().fd;
    if (file != other_) {
        ::dup2(file, other_);
        ::close(file);
    }
    WriteFile("/proc/self/fd/" + std::to_string(other_), std::string(kDataSize, 'x'));
}

std::string Stage::LockFile() const {
    return ReadFile(name_.LockPath());
}

SharedMemoryMetadata Stage::Record() const {
    return RecordIn(LockFile());
}

std::vector<std::string> Stage::Rehearse() {
    Begin({}, nullptr);
    std::vector<std::string> calls;
    for (std::string call = actor_->Hear(); !call.empty(); call = actor_->Hear()) {
        calls.push_back(call);
    }
    EXPECT_EQ(actor_->ExitCode(), 0);
    return calls;
}

void Stage::RehearseAccesses(AccessTrap::Record& record) {
    Begin({}, &record);
    while (!actor_->Hear().empty()) {
    }
    EXPECT_EQ(actor_->ExitCode(), 0);
}

void Stage::Kill(const Moment& moment) {
    AccessTrap::Record accesses;
    Begin(moment, moment.kind == Moment::Kind::AfterAccess ? &accesses : nullptr);
    const int status = actor_->Wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "it has outlived its death";
}

// The survivors open a block that the process has made after it has been forked, and those who have
// one before that: copies of their descriptors in the dying process must not matter.
void Stage::Begin(const Moment& moment, AccessTrap::Record* accesses) {
    actor_.emplace([&](const Conversation& parent) {
        SetSafetyAlarm();
        Actor actor(name_.Name(), scene_.role);
        parent.Say("ready");
        (void)parent.Hear();
        CallFaults faults;
        NameFiles(faults, name_, LockFile());
        Plan(faults, moment);
        std::optional<MappingWatch> watch;
        if (accesses != nullptr) {
            watch.emplace(name_.Name(), faults, *accesses,
                          moment.kind == Moment::Kind::AfterAccess
                              ? static_cast<std::uint64_t>(moment.nth)
                              : 0);
        }
        scene_.act(actor, faults);
        if (watch) {
            watch->Stop();
        }
        for (const std::string& call : faults.Calls()) {
            parent.Say(call);
        }
        parent.Say("");
        return 0;
    });
    if (actor_->Hear() != "ready") {
        throw std::runtime_error("the process is not ready");
    }
    if (scene_.role == Role::Creator) {
        OpenSurvivors();
    }
    lockFileBefore_ = LockFile();
    if (scene_.alongside) {
        reader_->LockForRead();
    }
    holdingBefore_ = HoldingsOf(name_.Name());
    actor_->Say("act");
}

void Stage::ExpectNothingElseLeft() const {
    for (const std::string& file : FilesNamed(name_.Name())) {
        EXPECT_EQ(file, name_.LockPath()) << "is left";
    }
    EXPECT_TRUE(OtherHoldersOfMemory(name_.Name()).empty()) << "memory is left";
}

// Locks first: whether they are as they were is lost once one is taken.
void Stage::ExpectSurvivorsSound() {
    EXPECT_EQ(HoldingsOf(name_.Name()), holdingBefore_);
    if (!LockFile().empty()) {
        EXPECT_EQ(LockOn(name_.LockPath()), scene_.alongside ? Held::Shared : Held::No);
    }
    if (!reader_) {
        return;
    }
    if (scene_.alongside) {
        EXPECT_EQ(*reader_->GetDataForRead(), kOld);
        reader_->UnlockForRead();
        EXPECT_EQ(LockOn(name_.LockPath()), Held::No);
    }
    for (SharedMemoryBlock* const survivor : {reader_.get(), writer_.get()}) {
        ASSERT_TRUE(survivor->TryLockForRead());
        survivor->UnlockForRead();
    }
    ASSERT_TRUE(writer_->TryLockForWrite());
    writer_->UnlockForWrite();
    writer_->LockForWrite();
    writer_->UnlockForWrite();
}

bool Stage::IsPartlyNew() const {
    const SharedMemoryMetadata before = RecordIn(lockFileBefore_);
    const SharedMemoryMetadata record = Record();
    return isHalved_ ||
           (before.pid != 0 && LockFile() != lockFileBefore_ &&
            (record.pid == before.pid || record.ino == before.ino || record.uid == before.uid));
}

void Stage::KeepOfRecord(std::size_t length) {
    std::string before = lockFileBefore_;
    before.resize(40);
    std::string content = LockFile();
    content.replace(0, 8, before, 0, 8);
    content.replace(8 + length, std::string::npos, before, 8 + length);
    WriteFile(name_.LockPath(), content);
    isHalved_ = true;
}

std::string Stage::Left() const {
    const std::string content = LockFile();
    if (content.size() != 40) {
        if (content.empty()) {
            return FilesNamed(name_.Name()).empty() ? "nothing" : "an empty lock file";
        }
        return "a lock file of " + std::to_string(content.size()) + " bytes";
    }
    if (content[0] == 0) {
        return "a lock file without a record";
    }
    if (content == lockFileBefore_) {
        return "the record that was there";
    }
    if (IsPartlyNew()) {
        return kPartlyNew;
    }
    EXPECT_EQ(RecordIn(content).pid, Pid());
    return kNewRecord;
}

Outcome Stage::Look() {
    ExpectNothingElseLeft();
    ExpectSurvivorsSound();
    Outcome outcome;
    outcome.left = Left();
    const std::string lockFile = LockFile();
    const SharedMemoryMetadata record = RecordIn(lockFile);
    Remains remains;
    remains.file = !FilesNamed(name_.Name()).empty();
    remains.record = !lockFile.empty() && lockFile[0] != 0;
    remains.isPartlyNew = outcome.left == kPartlyNew;
    remains.creatorLives = record.pid == ::getpid();
    remains.survivorsData = reader_ ? DataInWords(*reader_) : "";
    const Finding found = FindNext(name_.Name());
    EXPECT_EQ(found.locks, "free");
    EXPECT_EQ(found.attaching, found.opening);
    const bool opens = found.opening.find("data") == 0;
    EXPECT_EQ(found.creating, opens ? found.opening : "fresh");
    EXPECT_TRUE(!remains.isPartlyNew || IsRefusalOfStaleRecord(found.opening)) << found.opening;
    if (opens) {
        EXPECT_EQ(remains.survivorsData, found.opening);
    }
    Tell(outcome, found, remains);
    return outcome;
}

}  // namespace qel::test
