#include "Orphans.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <semaphore.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "BlockView.h"
#include "File.h"
#include "FileAge.h"
#include "LockFileImpl.h"
#include "ObjectCheck.h"
#include "ObjectNames.h"
#include "RepairRule.h"
#include "RingFile.h"
#include "RingFlow.h"
#include "SystemSemaphore.h"
#include "Text.h"
#include "Writers.h"

namespace qel {
namespace {

std::string PathOf(Orphan::Kind kind, const std::string& name) {
    switch (kind) {
        case Orphan::Kind::Ring:
            return RingPath(name);
        case Orphan::Kind::Block:
            return BlockLockPath(name);
        case Orphan::Kind::Semaphore:
            break;
    }
    return SystemSemaphore::PathOf(name);
}

/// Who may still use the file, and does not merely look at it; empty if nobody.
std::string UseOf(const std::string& path, const struct stat& status,
                  const ProcessSurvey& processes) {
    const auto users = processes.WritersOf(status.st_dev, status.st_ino);
    if (!users.empty()) {
        return WithVerb(users, "uses it", "use it");
    }
    const std::string hidden = HiddenText(processes.HiddenProcesses(), processes.ListsAll());
    if (hidden.empty()) {
        return {};
    }
    switch (WritersOf(path)) {
        case Writers::None:
            return {};
        case Writers::Some:
            return "a process that cannot be seen uses it";
        case Writers::Unknown:
            break;
    }
    return hidden + " and may use it";
}

/// Records that wait in it.
std::string ContentOf(const RingFile& ring) {
    const RingFields fields = ring.Fields();
    const auto flow = FlowOf(fields, ring.Size(), LastNodeReached(fields, ring.Size()));
    if (fields.initialised == 0 || !flow || flow->Sum() != ring.Size() || flow->InUse() == 0) {
        return {};
    }
    const RecordSource records(ring);
    const auto count = CountRecords(records, (fields.wIdx[0] + fields.avail[0]) % ring.Size(),
                                    ring.Size() - fields.avail[0]);
    return (count ? Counted(*count, "packet") + ", " : "") + Counted(flow->InUse(), "byte") +
           " in it";
}

class Search {
public:
    Search(const std::vector<std::string>& names, const ProcessSurvey& processes)
        : names_(names), processes_(processes) {}

    OrphanSearch Do() {
        Look(Orphan::Kind::Ring, RingNames());
        Look(Orphan::Kind::Block, BlockNames());
        Look(Orphan::Kind::Semaphore, SemaphoreNames());
        for (const std::string& name : names_) {
            if (std::find(found_.begin(), found_.end(), name) == found_.end()) {
                search_.kept.push_back("there is no ring, block or semaphore " + OneLine(name));
            }
        }
        return std::move(search_);
    }

private:
    void Look(Orphan::Kind kind, const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            if (names_.empty() || std::find(names_.begin(), names_.end(), name) != names_.end()) {
                LookAt({kind, name, PathOf(kind, name)});
            }
        }
    }

    void LookAt(Orphan orphan) {
        if (lstat(orphan.path.c_str(), &orphan.status) != 0) {
            return;  // gone meanwhile
        }
        found_.push_back(orphan.name);
        const bool isAsked = !names_.empty();
        std::string why;
        try {
            why = WhyNot(orphan, isAsked);
        } catch (const std::runtime_error& reason) {
            why = reason.what();
        }
        if (why.empty()) {
            orphan.age = AgeOf(orphan.path);
            search_.orphans.push_back(std::move(orphan));
        } else if (isAsked) {
            search_.kept.push_back(
                fmt::format("{} is kept: {}", orphan.ObjectText(), OneLine(why)));
        }
    }

    /// @return why it is no orphan, or not to be removed unasked
    std::string WhyNot(Orphan& orphan, bool isAsked) const {
        if (!S_ISREG(orphan.status.st_mode)) {
            return "what stands there is no file";
        }
        if (std::string use = UseOf(orphan.path, orphan.status, processes_); !use.empty()) {
            return use;
        }
        switch (orphan.kind) {
            case Orphan::Kind::Ring:
                return WhyNotRing(orphan, isAsked);
            case Orphan::Kind::Block:
                return WhyNotBlock(orphan, isAsked);
            case Orphan::Kind::Semaphore:
                break;
        }
        return isAsked || orphan.status.st_size == sizeof(sem_t) ? "" : "it is no semaphore";
    }

    static std::string WhyNotRing(Orphan& orphan, bool isAsked) {
        const auto ring = RingFile::Open(orphan.name);
        if (!ring) {
            return "it is gone";
        }
        orphan.content = ContentOf(*ring);
        const RingFields fields = ring->Fields();
        const bool isRing = fields.initialised == 1 && fields.halfSize == ring->Size() / 2 &&
                            fields.quarterSize == ring->Size() / 4 && fields.reservedAreZero;
        return isAsked || isRing ? "" : "it is not known to be a ring";
    }

    std::string WhyNotBlock(const Orphan& orphan, bool isAsked) const {
        const auto block = LookAtBlock(orphan.name, processes_);
        if (!block) {
            return "it is gone";
        }
        if (block->record) {
            if (block->creator == BlockCreator::Alive) {
                return "its creator is alive";
            }
            if (block->creator == BlockCreator::Hidden) {
                return "its creator cannot be seen";
            }
            if (!block->openBy.empty()) {
                return WithVerb(block->openBy, "still has", "still have") + " the old block";
            }
        }
        constexpr off_t kLength = LockFileIOBase<SharedMemoryMetadata>::kFileLength;
        const bool isLockFile = orphan.status.st_size == kLength || orphan.status.st_size == 0;
        return isAsked || isLockFile ? "" : "it is not known to be a lock file";
    }

    const std::vector<std::string>& names_;
    const ProcessSurvey& processes_;
    std::vector<std::string> found_;
    OrphanSearch search_;
};

}  // namespace

std::string Orphan::ObjectText() const {
    const char* const word = kind == Orphan::Kind::Ring    ? "ring"
                             : kind == Orphan::Kind::Block ? "block"
                                                           : "semaphore";
    return fmt::format("{} {}", word, OneLine(name));
}

std::uint64_t Orphan::Bytes() const {
    constexpr std::uint64_t kBlockUnit = 512;  // of st_blocks
    return static_cast<std::uint64_t>(status.st_blocks) * kBlockUnit;
}

OrphanSearch FindOrphans(const std::vector<std::string>& names, const ProcessSurvey& processes) {
    return Search(names, processes).Do();
}

std::string RemoveOrphan(const Orphan& orphan, const ProcessSurvey& processes) {
    const File file = OpenToLook(orphan.path, O_NOFOLLOW);
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Fd(), &status) != 0) {
        return errno == ENOENT ? "it is gone" : std::strerror(errno);
    }
    if (status.st_dev != orphan.status.st_dev || status.st_ino != orphan.status.st_ino) {
        return "another has taken its place";
    }
    // Who opens a ring with OpenRing, or a block, locks this file first.
    if (orphan.kind != Orphan::Kind::Semaphore && flock(file.Fd(), LOCK_EX | LOCK_NB) != 0) {
        return "somebody has locked it";
    }
    if (std::string use = UseOf(orphan.path, status, processes); !use.empty()) {
        return use;
    }
    if (WritersOf(orphan.path) == Writers::Some) {
        return "somebody has come to use it";
    }
    if (struct stat now{}; lstat(orphan.path.c_str(), &now) != 0 || now.st_ino != status.st_ino ||
                           now.st_dev != status.st_dev) {
        return "another has taken its place";
    }
    return unlink(orphan.path.c_str()) == 0 ? "" : std::strerror(errno);
}

}  // namespace qel
