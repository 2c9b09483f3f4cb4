#include "BlockCheck.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include "BlockView.h"
#include "File.h"
#include "LockFileImpl.h"
#include "ObjectCheck.h"
#include "Text.h"

namespace qel {
namespace {

using BlockLockFile = LockFileIOBase<SharedMemoryMetadata>;

constexpr const char* kStartWriter = "start a writer with a size";

/// Looks at one block.
class BlockCheckup {
public:
    BlockCheckup(const std::string& name, const BlockView& block, const ProcessSurvey& processes)
        : name_(name), object_("block " + OneLine(name)), block_(block), processes_(processes) {}

    [[nodiscard]] ObjectReport Report() {
        struct stat status {};
        if (lstat(block_.lockFile.c_str(), &status) != 0) {
            FailToRead(block_.lockFile, errno);
        }
        lockUsers_ = processes_.UsersOf(status.st_dev, status.st_ino);
        CheckLockFile(status);
        CheckRecord();
        Add(found_, CheckReplaced(object_, block_.lockFile, &status, processes_));
        Add(found_, CheckAccess({object_, block_.lockFile, status}, lockUsers_));
        return {Summary(), found_};
    }

private:
    void Tell(Severity severity, const char* code, const std::string& text,
              const std::string& mend = {}) {
        found_.push_back({severity, code, object_, text, mend});
    }

    [[nodiscard]] std::string Summary() const {
        const std::string size = block_.size ? fmt::format("{} bytes, ", *block_.size) : "";
        return size + UseText(lockUsers_, processes_.SeesAll());
    }

    void CheckLockFile(const struct stat& status) {
        const auto length = static_cast<std::uint64_t>(status.st_size);
        if (length != BlockLockFile::kFileLength && length != 0) {
            Tell(Severity::Warning, "lock-file-length",
                 fmt::format("its lock file has {} bytes, not {}: whoever opens it next cuts or "
                             "grows it, and what it said of the block is lost",
                             length, BlockLockFile::kFileLength),
                 kStartWriter);
        } else if (!block_.record) {
            Tell(Severity::Note, "no-record", "nobody has made it yet, or its maker died before",
                 kStartWriter);
        }
        for (const ObjectUser& user : lockUsers_) {
            const bool isStopped = user.state == 'T' || user.state == 't';
            for (const OpenDescriptor& descriptor : user.descriptors) {
                if (isStopped && descriptor.lock != OpenDescriptor::Lock::None) {
                    Tell(Severity::Warning, "locked-by-stopped",
                         fmt::format("{} has locked it {}", ProcessesText({user}),
                                     descriptor.lock == OpenDescriptor::Lock::Exclusive
                                         ? "to write: all others wait"
                                         : "to read: writers wait"),
                         fmt::format("kill -CONT {}", user.pid));
                }
            }
        }
    }

    void CheckRecord() {
        if (!block_.record) {
            return;
        }
        switch (block_.creator) {
            case BlockCreator::Alive:
                CheckMemory();
                return;
            case BlockCreator::Hidden:
                Tell(Severity::Note, "cannot-be-seen",
                     fmt::format("cannot be seen: its creator, process {}, may not be looked into "
                                 "by this user",
                                 block_.record->pid));
                return;
            case BlockCreator::Gone:
            case BlockCreator::Other:
                CheckStale();
                return;
        }
    }

    void CheckStale() {
        const std::string why =
            block_.creator == BlockCreator::Gone
                ? fmt::format("its creator, process {}, is gone", block_.record->pid)
                : fmt::format(
                      "its creator is gone, and process {} is another or has another file "
                      "at descriptor {}",
                      block_.record->pid, block_.record->fd);
        if (block_.openBy.empty()) {
            Tell(Severity::Note, "stale-record",
                 why + ": nobody can open the block until it is made anew",
                 fmt::format("{}, or {}", kStartWriter, QevCommand("clean", name_)));
            return;
        }
        Tell(Severity::Fault, "stale-record",
             fmt::format("{}, and {} the old block: nobody else can open it", why,
                         WithVerb(block_.openBy, "still has", "still have")),
             std::string(kStartWriter) + ", and restart who has the old block");
    }

    void CheckMemory() {
        const SharedMemoryMetadata& record = *block_.record;
        const File memory = OpenToLook(BlockMemoryPath(record.pid, record.fd));
        struct stat status {};
        if (!memory.IsOpen() || fstat(memory.Fd(), &status) != 0) {
            return;  // gone meanwhile
        }
        const auto length = static_cast<std::uint64_t>(status.st_size);
        if (length <= sizeof record.uid) {
            Tell(Severity::Fault, "too-small",
                 fmt::format("its memory has {} bytes: nobody can open it", length),
                 "restart its creator");
        }
        Add(found_, CheckCut(object_, length, block_.openBy));
        const int seals = fcntl(memory.Fd(), F_GET_SEALS);
        if (seals != -1 && (seals & (F_SEAL_SHRINK | F_SEAL_SEAL)) == 0) {
            Tell(Severity::Note, "unsealed",
                 "whoever may open it for writing can cut it under the others",
                 QevCommand("seal", name_));
        }
        CheckNamespaces();
    }

    /// The record names a process by its number, which others may know by another.
    void CheckNamespaces() {
        const std::string own = NamespaceOf(getpid());
        for (const ObjectUser& user : block_.openBy) {
            const std::string other = NamespaceOf(user.pid);
            if (!own.empty() && !other.empty() && own != other) {
                Tell(Severity::Warning, "pid-namespace",
                     fmt::format("{} is in another pid name space: others look for its creator in "
                                 "vain",
                                 ProcessesText({user})),
                     "run all who use it in one pid name space");
            }
        }
    }

    static std::string NamespaceOf(pid_t pid) {
        std::array<char, 64> link{};
        const std::string path = fmt::format("/proc/{}/ns/pid", pid);
        return readlink(path.c_str(), link.data(), link.size() - 1) == -1 ? "" : link.data();
    }

    const std::string& name_;
    std::string object_;
    const BlockView& block_;
    const ProcessSurvey& processes_;
    std::vector<ObjectUser> lockUsers_;
    Findings found_;
};

}  // namespace

ObjectReport CheckBlock(const std::string& name, const ProcessSurvey& processes) {
    const auto block = LookAtBlock(name, processes);
    if (!block) {
        throw std::runtime_error("there is no block " + OneLine(name));
    }
    return BlockCheckup(name, *block, processes).Report();
}

}  // namespace qel
