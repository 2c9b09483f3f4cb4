#include "ProcessSurvey.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "ControlBlock.h"
#include "FileText.h"

namespace qel {
namespace {

namespace fs = std::filesystem;

using Key = std::pair<dev_t, ino_t>;

constexpr int kHexadecimal = 16;

template <typename Number>
std::optional<Number> NumberIn(std::string_view text, int base = 10) {
    Number number{};
    const auto [rest, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || rest != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

/// The entries of a folder of /proc whose names are numbers, in order.
std::vector<int> NumberedEntries(const fs::path& folder, std::error_code& error) {
    std::vector<int> numbers;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (const auto number = NumberIn<int>(entry->path().filename().native())) {
            numbers.push_back(*number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

/// Other files are left alone: to ask a file of a dead file server would wait for it.
bool MayBeObject(std::string_view path) {
    return StartsWith(path, "/dev/shm/") || StartsWith(path, "/memfd:") ||
           (StartsWith(path, "/tmp/") && path.find("_shm.lock") != std::string_view::npos);
}

/// What a line of fdinfo such as "lock:\t1: OFDLCK ADVISORY  WRITE -1 00:19:2341 1 1" says.
void TakeLock(const std::string& line, OpenDescriptor& descriptor) {
    std::istringstream words(line);
    const std::vector<std::string> parts{std::istream_iterator<std::string>(words), {}};
    constexpr std::size_t kParts = 9;
    if (parts.size() < kParts) {
        return;
    }
    const bool isExclusive = parts[4] == "WRITE";
    if (parts[2] == "FLOCK") {
        descriptor.lock =
            isExclusive ? OpenDescriptor::Lock::Exclusive : OpenDescriptor::Lock::Shared;
        return;
    }
    const auto node = NumberIn<unsigned>(parts[7]);
    if (parts[2] == "OFDLCK" && isExclusive && parts[7] == parts[8] && node && *node < kMaxNodes) {
        descriptor.claims.push_back(*node);
    }
}

OpenDescriptor DescriptorOf(const fs::path& process, int fd) {
    OpenDescriptor descriptor;
    descriptor.fd = fd;
    std::ifstream info(process / "fdinfo" / std::to_string(fd));
    for (std::string line; std::getline(info, line);) {
        if (StartsWith(line, "flags:")) {
            constexpr int kOctal = 8;
            const long flags = std::strtol(line.c_str() + sizeof "flags:" - 1, nullptr, kOctal);
            descriptor.writes = (flags & O_ACCMODE) != O_RDONLY;
        } else if (StartsWith(line, "lock:")) {
            TakeLock(line, descriptor);
        }
    }
    return descriptor;
}

/// Offset in the file at which the mapping of a range such as "7f00-7f10" ends.
std::uint64_t EndOfMapping(std::string_view range, std::string_view offset) {
    const auto dash = range.find('-');
    const auto start = NumberIn<std::uint64_t>(range.substr(0, dash), kHexadecimal);
    const auto end =
        NumberIn<std::uint64_t>(range.substr(std::min(dash, range.size() - 1) + 1), kHexadecimal);
    const auto from = NumberIn<std::uint64_t>(offset, kHexadecimal);
    return start && end && from ? *end - *start + *from : 0;
}

/// In a process name space of its own, as a container has, /proc lists no process of another one,
/// and shared memory may be shared all the same.
bool IsFirstNamespace() {
    std::error_code error;
    const fs::path name = fs::read_symlink("/proc/self/ns/pid", error);
    return error || name == "pid:[4026531836]";  // fixed by the kernel
}

/// What /proc/PID/stat tells.
struct ProcessStat {
    std::string command;
    char state = '?';
    bool hasFiles = true;  ///< false of threads of the kernel and of processes that have ended
};

std::optional<ProcessStat> StatOf(const fs::path& process) {
    const std::string text = FileText(process / "stat");
    const auto opens = text.find('(');
    const auto closes = text.rfind(')');
    if (opens == std::string::npos || closes == std::string::npos || closes < opens) {
        return std::nullopt;
    }
    ProcessStat stat;
    stat.command = text.substr(opens + 1, closes - opens - 1);
    std::istringstream rest(text.substr(closes + 1));
    std::string skipped;
    unsigned long flags = 0;
    rest >> stat.state >> skipped >> skipped >> skipped >> skipped >> skipped >> flags;
    constexpr unsigned long kKernelThread = 0x00200000;
    stat.hasFiles = (flags & kKernelThread) == 0 && stat.state != 'Z' && stat.state != 'X';
    return stat;
}

}  // namespace

/// Reads one process after the other into a survey.
class ProcessReader {
public:
    explicit ProcessReader(ProcessSurvey& survey) : survey_(survey) {}

    void Read(pid_t pid) {
        path_ = fs::path("/proc") / std::to_string(pid);
        struct stat owner {};
        const auto stat = StatOf(path_);
        if (!stat || !stat->hasFiles || ::stat(path_.c_str(), &owner) != 0) {
            return;
        }
        found_.clear();
        user_ = ObjectUser{pid, owner.st_uid, stat->command, stat->state, false, {}, false, 0};
        const bool seesAll = ReadDescriptors() && ReadMappings();
        for (auto& [key, user] : found_) {
            survey_.users_[key].push_back(std::move(user));
        }
        survey_.hiddenProcesses_ += seesAll ? 0 : 1;
    }

private:
    ObjectUser& UserOf(const Key& key) { return found_.try_emplace(key, user_).first->second; }

    bool ReadDescriptors() {
        std::error_code error;
        const auto descriptors = NumberedEntries(path_ / "fd", error);
        bool isHidden = error == std::errc::permission_denied;
        for (const int fd : descriptors) {
            const fs::path link = path_ / "fd" / std::to_string(fd);
            const fs::path target = fs::read_symlink(link, error);
            isHidden = isHidden || error == std::errc::permission_denied;
            struct stat status {};
            if (!error && MayBeObject(target.native()) && ::stat(link.c_str(), &status) == 0) {
                UserOf({status.st_dev, status.st_ino})
                    .descriptors.push_back(DescriptorOf(path_, fd));
                TakePath(target.native(), {status.st_dev, status.st_ino});
            }
        }
        return !isHidden;
    }

    /// Lines such as "7f00-7f10 rw-s 00000000 00:19 2341   /dev/shm/camera.shm".
    bool ReadMappings() {
        errno = 0;
        std::ifstream maps(path_ / "maps");
        if (!maps) {
            return errno != EACCES && errno != EPERM;  // of a process that has just ended: neither
        }
        for (std::string line; std::getline(maps, line);) {
            const auto path = line.find('/');
            if (path != std::string::npos &&
                (MayBeObject(std::string_view(line).substr(path)) || IsShared(line))) {
                TakeMapping(line);
            }
        }
        return true;
    }

    /// Of the file system that rings are in, which a process may know under another path.
    [[nodiscard]] bool IsShared(const std::string& line) const {
        return line.find(sharedDevice_) != std::string::npos;
    }

    /// As a line of /proc/PID/maps has it, between blanks.
    static std::string SharedDevice() {
        struct stat status {};
        if (::stat("/dev/shm", &status) != 0) {
            return "\n";  // stands in no line
        }
        std::ostringstream text;
        text << std::hex << std::setfill('0') << ' ' << std::setw(2) << major(status.st_dev) << ':'
             << std::setw(2) << minor(status.st_dev) << ' ';
        return text.str();
    }

    void TakePath(std::string path, const Key& key) {
        constexpr std::string_view kDeleted = " (deleted)";
        if (path.size() > kDeleted.size() &&
            path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
            path.resize(path.size() - kDeleted.size());
        }
        if (!StartsWith(path, "/memfd:")) {
            survey_.paths_[path].insert(key);
        }
    }

    void TakeMapping(const std::string& line) {
        std::istringstream words(line);
        std::string range;
        std::string access;
        std::string offset;
        std::string device;
        ino_t inode = 0;
        words >> range >> access >> offset >> device >> inode;
        const auto colon = device.find(':');
        if (!words || colon == std::string::npos) {
            return;
        }
        const std::string_view view(device);
        const auto major = NumberIn<unsigned>(view.substr(0, colon), kHexadecimal);
        const auto minor = NumberIn<unsigned>(view.substr(colon + 1), kHexadecimal);
        if (major && minor) {
            ObjectUser& user = UserOf({makedev(*major, *minor), inode});
            user.maps = true;
            user.mapsToWrite = user.mapsToWrite || access.find('w') != std::string::npos;
            user.mappedTo = std::max(user.mappedTo, EndOfMapping(range, offset));
            TakePath(line.substr(line.find('/')), {makedev(*major, *minor), inode});
        }
    }

    ProcessSurvey& survey_;
    const std::string sharedDevice_ = SharedDevice();
    fs::path path_;
    ObjectUser user_;  // what all its objects' users have in common
    std::map<Key, ObjectUser> found_;
};

std::vector<unsigned> ObjectUser::Nodes() const {
    std::vector<unsigned> nodes;
    for (const OpenDescriptor& descriptor : descriptors) {
        nodes.insert(nodes.end(), descriptor.claims.begin(), descriptor.claims.end());
    }
    std::sort(nodes.begin(), nodes.end());
    nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
    return nodes;
}

bool ObjectUser::CanWrite() const {
    return mapsToWrite || std::any_of(descriptors.begin(), descriptors.end(),
                                      [](const auto& descriptor) { return descriptor.writes; });
}

ProcessSurvey ProcessSurvey::Take() {
    ProcessSurvey survey;
    std::error_code error;
    const auto processes = NumberedEntries("/proc", error);
    if (error) {
        throw std::runtime_error("cannot read /proc: " + std::to_string(error.value()) + "(" +
                                 error.message() + ")");
    }
    ProcessReader reader(survey);
    for (const pid_t pid : processes) {
        if (pid != getpid()) {
            reader.Read(pid);
        }
    }
    survey.listsAll_ = !processes.empty() && processes.front() == 1 && IsFirstNamespace();
    return survey;
}

const std::vector<ObjectUser>& ProcessSurvey::UsersOf(dev_t device, ino_t inode) const {
    static const std::vector<ObjectUser> kNobody;
    const auto found = users_.find({device, inode});
    return found == users_.end() ? kNobody : found->second;
}

std::vector<ObjectUser> ProcessSurvey::WritersOf(dev_t device, ino_t inode) const {
    std::vector<ObjectUser> writers;
    const auto& users = UsersOf(device, inode);
    std::copy_if(users.begin(), users.end(), std::back_inserter(writers),
                 [](const ObjectUser& user) { return user.CanWrite(); });
    return writers;
}

}  // namespace qel
