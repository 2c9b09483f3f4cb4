#include "BlockView.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "File.h"
#include "LockFileImpl.h"
#include "Text.h"

namespace qel {
namespace {

using BlockLockFile = LockFileIOBase<SharedMemoryMetadata>;

std::optional<SharedMemoryMetadata> RecordIn(const File& lockFile, const std::string& path) {
    std::array<unsigned char, BlockLockFile::kFileLength> content{};
    const ssize_t count = pread(lockFile.Fd(), content.data(), content.size(), 0);
    if (count == -1) {
        FailToRead(path, errno);
    }
    const bool whole = static_cast<std::size_t>(count) == content.size();
    if (!whole || content.front() == 0) {
        return std::nullopt;
    }
    SharedMemoryMetadata record;
    std::memcpy(&record, content.data() + BlockLockFile::kRecordOffset, sizeof record);
    return record;
}

bool IsRecorded(const struct stat& status, const SharedMemoryMetadata& record) {
    return S_ISREG(status.st_mode) && status.st_dev == record.dev && status.st_ino == record.ino;
}

/// What it says of the creator that its memory file could not be reached.
BlockCreator WithoutFile(const SharedMemoryMetadata& record, const std::string& path, int error) {
    const bool isMissing = error == ENOENT || error == ESRCH;
    if (error == EACCES || error == EPERM) {
        return BlockCreator::Hidden;
    }
    if (!isMissing) {
        FailToRead(path, error);
    }
    // A process of another user may not even be listed.
    const bool isListed = record.pid <= 0 || kill(record.pid, 0) == 0 || errno != EPERM ||
                          access(("/proc/" + std::to_string(record.pid)).c_str(), F_OK) == 0;
    return isListed ? BlockCreator::Gone : BlockCreator::Hidden;
}

BlockCreator CreatorOf(const SharedMemoryMetadata& record) {
    const std::string path = BlockMemoryPath(record.pid, record.fd);
    struct stat status {};
    if (stat(path.c_str(), &status) == -1) {
        return WithoutFile(record, path, errno);
    }
    if (!IsRecorded(status, record)) {
        return BlockCreator::Other;  // not even opened: it may be anything
    }
    const File memory = OpenToLook(path);
    if (!memory.IsOpen()) {
        return WithoutFile(record, path, errno);
    }
    return IsMemoryOf(memory, record) ? BlockCreator::Alive : BlockCreator::Other;
}

/// What one of those that have the memory file open lets see of it.
void LookAtMemory(BlockView& block) {
    for (const ObjectUser& user : block.openBy) {
        for (const OpenDescriptor& descriptor : user.descriptors) {
            const std::string path = BlockMemoryPath(user.pid, descriptor.fd);
            struct stat status {};
            if (stat(path.c_str(), &status) != 0 || !IsRecorded(status, *block.record) ||
                status.st_size < static_cast<off_t>(kBlockHeaderSize)) {
                continue;
            }
            block.size = static_cast<std::uint64_t>(status.st_size) - kBlockHeaderSize;
            const int seals = fcntl(OpenToLook(path).Fd(), F_GET_SEALS);
            if (seals != -1) {
                block.sealed = (static_cast<unsigned>(seals) & F_SEAL_SHRINK) != 0;
            }
            return;
        }
    }
}

std::string TextOf(const ObjectUser& user, const OpenDescriptor& descriptor,
                   const BlockView& block) {
    const bool isCreator = block.creator == BlockCreator::Alive && user.pid == block.record->pid &&
                           descriptor.fd == block.record->fd;
    return fmt::format("{} {} ({}{})", user.pid, OneLine(user.command),
                       isCreator ? "creator, " : "", descriptor.writes ? "writes" : "reads");
}

std::string UsersOf(const BlockView& block) {
    constexpr const char* kNextLine = "\n           ";
    std::string text;
    for (const ObjectUser& user : block.openBy) {
        for (const OpenDescriptor& descriptor : user.descriptors) {
            text += (text.empty() ? "" : kNextLine) + TextOf(user, descriptor, block);
        }
    }
    if (text.empty()) {
        text = "nobody";
    }
    if (block.hiddenProcesses > 0) {
        text +=
            fmt::format("{}processes hidden from this user: {}", kNextLine, block.hiddenProcesses);
    }
    return text;
}

}  // namespace

std::optional<BlockView> LookAtBlock(const std::string& name, const ProcessSurvey& processes) {
    BlockView block;
    block.lockFile = BlockLockPath(name);
    const File lockFile = OpenToLook(block.lockFile, O_NOFOLLOW);
    if (!lockFile.IsOpen()) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        FailToRead(block.lockFile, errno);
    }
    block.record = RecordIn(lockFile, block.lockFile);
    if (block.record) {
        block.creator = CreatorOf(*block.record);
        block.openBy = processes.UsersOf(block.record->dev, block.record->ino);
        block.hiddenProcesses = processes.HiddenProcesses();
        LookAtMemory(block);
    }
    return block;
}

bool IsMemoryOf(const File& memory, const SharedMemoryMetadata& record) {
    struct stat status {};
    std::int64_t uid = 0;
    return fstat(memory.Fd(), &status) == 0 && IsRecorded(status, record) &&
           pread(memory.Fd(), &uid, sizeof uid, 0) == sizeof uid && uid == record.uid && uid != 0;
}

std::string TextOf(BlockCreator creator) {
    switch (creator) {
        case BlockCreator::Alive:
            return "alive";
        case BlockCreator::Gone:
            return "gone: nobody can open the block until a writer makes it anew";
        case BlockCreator::Other:
            return "gone, its numbers are used by another: the record is stale";
        case BlockCreator::Hidden:
            break;
    }
    return "unknown: its process may not be looked into by this user";
}

std::string_view StateOf(const BlockView& block) {
    if (!block.record) {
        return "no record";
    }
    switch (block.creator) {
        case BlockCreator::Alive:
            return "live";
        case BlockCreator::Hidden:
            return "unseen";
        case BlockCreator::Gone:
        case BlockCreator::Other:
            break;
    }
    return "stale record";
}

std::string TextOf(const std::string& name, const BlockView& block) {
    std::string text =
        fmt::format("block      {}\nlock file  {}\n", OneLine(name), OneLine(block.lockFile));
    if (!block.record) {
        return text + "record     none\n";
    }
    const SharedMemoryMetadata& record = *block.record;
    text += fmt::format("record     process {}, descriptor {}, device {}, inode {}, uid {}\n",
                        record.pid, record.fd, record.dev, record.ino, record.uid);
    text += fmt::format("creator    {}\n", TextOf(block.creator));
    text += block.size ? fmt::format("size       {} bytes\n", *block.size)
                       : std::string("size       unknown\n");
    if (block.sealed) {
        text += fmt::format("sealed     {}\n", *block.sealed ? "against shrinking" : "no");
    }
    text += fmt::format("open by    {}\n", UsersOf(block));
    return text;
}

}  // namespace qel
