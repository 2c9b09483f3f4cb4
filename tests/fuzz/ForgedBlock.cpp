#include "ForgedBlock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>

#include "Files.h"
#include "ProcessState.h"

namespace qel::fuzz {
namespace {

constexpr std::size_t kLockLength = 40;
constexpr std::size_t kRecordOffset = 8;

struct stat StatusOf(int descriptor) {
    struct stat status {};
    (void)::fstat(descriptor, &status);
    return status;
}

}  // namespace

ForgedBlock::ForgedBlock(Input& input) {
    MakeMemory(input);
    const unsigned kind = input.Choice(8);
    if (kind == 0) {
        return;  // no lock file
    }
    Bytes content(kLockLength);
    if (kind == 1) {
        content = input.TakeBytes(input.Choice(100));
    } else {
        content[0] = kind == 2 ? input.Take<std::uint8_t>() : 1;
        const SharedMemoryMetadata record = RecordFrom(input);
        std::memcpy(content.data() + kRecordOffset, &record, sizeof(record));
        content.resize(input.Choice(4) == 0 ? input.Choice(100) : kLockLength);
    }
    test::WriteFile(LockPath(), {content.begin(), content.end()});
    KeepToOurOwn();
}

void ForgedBlock::MakeMemory(Input& input) {
    std::array<int, 2> pair{-1, -1};
    switch (input.Choice(16)) {
        case 0:
            files_.emplace_back(::open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            return;
        case 1:
            files_.emplace_back(::open("/dev/null", O_RDWR | O_CLOEXEC));
            return;
        case 2:
            (void)::pipe2(pair.data(), O_CLOEXEC);
            break;
        case 3:
            (void)::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data());
            break;
        default:
            MakeMemoryFile(input);
            return;
    }
    files_.emplace_back(pair[0]);
    files_.emplace_back(pair[1]);
}

void ForgedBlock::MakeMemoryFile(Input& input) {
    files_.emplace_back(::memfd_create(("/" + Name()).c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING));
    const int memory = files_.front().Get();
    const Bytes content = input.TakeBytes(input.Choice(64));
    (void)::pwrite(memory, content.data(), content.size(), 0);
    if (input.Choice(4) == 0) {  // with a hole behind the content
        (void)::ftruncate(memory, static_cast<off_t>(input.Edge(4096) >> input.Choice(32)));
    }
    if (input.Choice(8) == 0) {
        (void)::fcntl(memory, F_ADD_SEALS, F_SEAL_WRITE);
    }
}

SharedMemoryMetadata ForgedBlock::RecordFrom(Input& input) const {
    SharedMemoryMetadata record;
    record.pid = input.Choice(4) == 0 ? input.Take<std::int32_t>() : ::getpid();
    const int lockFile = test::NextDescriptor();  // once it has been opened
    const std::array<std::int32_t, 8> descriptors{files_.front().Get(),
                                                  files_.back().Get(),
                                                  lockFile,
                                                  lockFile + 1,
                                                  -1,
                                                  static_cast<std::int32_t>(input.Choice(8)),
                                                  input.Take<std::int32_t>(),
                                                  std::numeric_limits<std::int32_t>::max()};
    const unsigned choice = input.Choice(16);
    record.fd = descriptors.at(choice < descriptors.size() ? choice : 0);
    const struct stat status = StatusOf(record.fd);
    record.dev = status.st_dev + (input.Choice(16) == 0 ? 1 : 0);
    record.ino = status.st_ino + (input.Choice(16) == 0 ? 1 : 0);
    if (input.Choice(8) == 0 || ::pread(record.fd, &record.uid, sizeof(record.uid), 0) < 0) {
        record.uid = input.Take<std::int64_t>();
    }
    return record;
}

void ForgedBlock::Forge(Input& input) {
    const unsigned offset = input.Choice(60);
    const Bytes bytes = input.TakeBytes(input.Choice(9));
    const FileDescriptor file(::open(LockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    (void)::pwrite(file.Get(), bytes.data(), bytes.size(), offset);
    KeepToOurOwn();
}

/// What other processes have open is not ours to look into, nor are the fuzzer's own files.
void ForgedBlock::KeepToOurOwn() const {
    constexpr std::int32_t kAboveAllProcesses = 1 << 30;
    SharedMemoryMetadata record = Record();
    if (record.pid > 0 && record.pid != ::getpid()) {
        record.pid |= kAboveAllProcesses;
    }
    const bool isOurs = std::any_of(files_.begin(), files_.end(), [&record](const auto& file) {
        return file.Get() == record.fd;
    });
    if (!isOurs && S_ISREG(StatusOf(record.fd).st_mode)) {
        record.fd = -1;
    }
    const FileDescriptor file(::open(LockPath().c_str(), O_RDWR | O_CLOEXEC));
    const std::array<std::int32_t, 2> numbers{record.pid, record.fd};
    const off_t length = StatusOf(file.Get()).st_size;
    if (length > static_cast<off_t>(kRecordOffset)) {
        const auto room = static_cast<std::size_t>(length) - kRecordOffset;
        (void)::pwrite(file.Get(), numbers.data(), std::min(sizeof(numbers), room), kRecordOffset);
    }
}

Bytes ForgedBlock::LockImage() const {
    const std::string content = test::ReadFile(LockPath());
    Bytes image(content.begin(), content.end());
    image.resize(kLockLength);
    return image;
}

SharedMemoryMetadata ForgedBlock::Record() const {
    SharedMemoryMetadata record;
    std::memcpy(&record, LockImage().data() + kRecordOffset, sizeof(record));
    return record;
}

std::string ForgedBlock::Target() const {
    const SharedMemoryMetadata record = Record();
    const bool isLockFile = record.pid == ::getpid() && record.fd == test::NextDescriptor();
    return isLockFile ? LockPath() : BlockMemoryPath(record.pid, record.fd);
}

std::string ForgedBlock::Refusal(bool isWriter) const {
    if (LockImage()[0] == 0) {
        return "failed to read lockFile to get metadata";
    }
    const SharedMemoryMetadata record = Record();
    if (record.fd < 0) {
        return "lockFile metadata has invalid file descriptor";
    }
    const std::string target = Target();
    struct stat status {};
    if (::stat(target.c_str(), &status) == -1) {
        return "file does not exist";
    }
    const bool isPipe = S_ISFIFO(status.st_mode);
    const FileDescriptor memory(
        isPipe ? -1 : ::open(target.c_str(), (isWriter ? O_RDWR : O_RDONLY) | O_CLOEXEC));
    if (!isPipe && !memory.IsOpen()) {
        return "Failed to open/proc/" + std::to_string(record.pid) + "/fd/" +
               std::to_string(record.fd);
    }
    if ((status.st_mode & S_IFREG) == 0) {
        return "shared memory file is not of regular type, assuming stale file descriptor";
    }
    return RefusalOf(memory.Get(), isWriter);
}

std::string ForgedBlock::RefusalOf(int memory, bool isWriter) const {
    const SharedMemoryMetadata record = Record();
    const struct stat status = StatusOf(memory);
    if (status.st_ino != record.ino || status.st_dev != record.dev) {
        return "shared memory file properties do not match lock file metadata, assuming stale file "
               "descriptor";
    }
    if (status.st_size < 8) {
        return "shared memory is too small";
    }
    std::int64_t uid = 0;
    (void)::pread(memory, &uid, sizeof(uid), 0);
    if (uid == 0 || uid != record.uid) {
        return "shared memory metadata uid does not match lock file metadata uid, assuming stale "
               "file descriptor";
    }
    const auto length = static_cast<std::size_t>(status.st_size);
    void* const start = ::mmap(nullptr, length, isWriter ? PROT_READ | PROT_WRITE : PROT_READ,
                               MAP_SHARED, memory, 0);
    if (start == MAP_FAILED) {
        return "failed to map shared memory";
    }
    ::munmap(start, length);
    return "";
}

std::uint64_t ForgedBlock::Size() const {
    struct stat status {};
    (void)::stat(Target().c_str(), &status);
    return static_cast<std::uint64_t>(status.st_size) - 8;
}

}  // namespace qel::fuzz
