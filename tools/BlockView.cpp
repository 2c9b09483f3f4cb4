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

#include "CommandLine.h"
#include "Files.h"
#include "LockFileImpl.h"

namespace qel {
namespace {

using BlockLockFile = LockFileIOBase<SharedMemoryMetadata>;

[[noreturn]] void FailToRead(const std::string& path, int error) {
    throw std::runtime_error(
        fmt::format("cannot read {}: {}({})", path, error, std::strerror(error)));
}

/// Opens for reading; never waits, whatever the file is.
File OpenToLook(const std::string& path, int flags = 0) {
    return File(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | flags));
}

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
    std::int64_t uid = 0;
    const bool same = pread(memory.Fd(), &uid, sizeof uid, 0) == sizeof uid && uid == record.uid;
    return same && uid != 0 ? BlockCreator::Alive : BlockCreator::Other;
}

std::optional<std::uint64_t> SizeOf(const MemoryFileUsers& openBy) {
    for (const MemoryFileUser& user : openBy.users) {
        struct stat status {};
        if (stat(BlockMemoryPath(user.pid, user.fd).c_str(), &status) == 0 &&
            status.st_size >= static_cast<off_t>(kBlockHeaderSize)) {
            return static_cast<std::uint64_t>(status.st_size) - kBlockHeaderSize;
        }
    }
    return std::nullopt;
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

std::string TextOf(const MemoryFileUser& user, const BlockView& block) {
    const bool isCreator = block.creator == BlockCreator::Alive && user.pid == block.record->pid &&
                           user.fd == block.record->fd;
    return fmt::format("{} {} ({}{})", user.pid, OneLine(user.command),
                       isCreator ? "creator, " : "", user.writes ? "writes" : "reads");
}

std::string UsersOf(const BlockView& block) {
    constexpr const char* kNextLine = "\n           ";
    std::string text;
    for (const MemoryFileUser& user : block.openBy.users) {
        text += (text.empty() ? "" : kNextLine) + TextOf(user, block);
    }
    if (text.empty()) {
        text = "nobody";
    }
    if (block.openBy.hiddenProcesses > 0) {
        text += fmt::format("{}processes hidden from this user: {}", kNextLine,
                            block.openBy.hiddenProcesses);
    }
    return text;
}

}  // namespace

std::optional<BlockView> LookAtBlock(const std::string& name) {
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
        block.openBy = UsersOfMemoryFile(block.record->dev, block.record->ino);
        block.size = SizeOf(block.openBy);
    }
    return block;
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
    text += fmt::format("open by    {}\n", UsersOf(block));
    return text;
}

}  // namespace qel
