#include "MachineCheck.h"

#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "ObjectNames.h"
#include "RingFile.h"
#include "SystemSemaphore.h"
#include "Text.h"
#include "UserText.h"

namespace qel {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMachine = "machine";

/// Lines of a file; nothing if it cannot be read.
std::optional<std::vector<std::string>> LinesOf(const fs::path& path) {
    std::ifstream file(path);
    if (!file) {
        return std::nullopt;
    }
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// All files of settings with `suffix` in the folders, in the order in which the last one counts:
/// of two with the same name only that in the first folder.
std::vector<fs::path> SettingsIn(const std::vector<fs::path>& folders, const std::string& suffix) {
    std::vector<fs::path> files;
    for (const fs::path& folder : folders) {
        std::error_code error;
        for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
             entry.increment(error)) {
            const fs::path& path = entry->path();
            const bool isHidden = std::any_of(
                files.begin(), files.end(),
                [&path](const fs::path& other) { return other.filename() == path.filename(); });
            if (path.extension() == suffix && !isHidden) {
                files.push_back(path);
            }
        }
    }
    std::sort(files.begin(), files.end(), [](const fs::path& left, const fs::path& right) {
        return left.filename() < right.filename();
    });
    return files;
}

std::string Trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    const auto last = text.find_last_not_of(" \t\r");
    return first == std::string_view::npos ? "" : std::string(text.substr(first, last - first + 1));
}

class MachineCheckup {
public:
    explicit MachineCheckup(const Machine& machine) : machine_(machine) {}

    Findings Check() {
        CheckRoom();
        CheckProtection("protected_hardlinks");
        CheckProtection("protected_symlinks");
        CheckLogins();
        CheckTidying();
        return std::move(found_);
    }

private:
    void Tell(Severity severity, const char* code, const std::string& text,
              const std::string& mend = {}) {
        found_.push_back({severity, code, kMachine, text, mend});
    }
    void TellUnseen(const std::string& what, const std::string& why) {
        Tell(Severity::Note, "cannot-be-seen", fmt::format("cannot be seen: {}: {}", what, why));
    }
    [[nodiscard]] fs::path At(const std::string& path) const {
        return fs::path(machine_.root) / path;
    }

    /// Bytes that rings have been given and have no memory for yet: /dev/shm must have room for
    /// them, or an access is a SIGBUS.
    static std::uint64_t Unbacked() {
        constexpr std::uint64_t kBlockUnit = 512;  // of st_blocks
        std::uint64_t sum = 0;
        for (const std::string& name : RingNames()) {
            struct stat status {};
            if (lstat(RingPath(name).c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
                const auto length = static_cast<std::uint64_t>(status.st_size);
                const std::uint64_t has = static_cast<std::uint64_t>(status.st_blocks) * kBlockUnit;
                const std::uint64_t lacks = length - std::min(length, has);
                sum += std::min(lacks, std::numeric_limits<std::uint64_t>::max() - sum);
            }
        }
        return sum;
    }

    void CheckRoom() {
        struct statfs system {};
        if (statfs("/dev/shm", &system) != 0) {
            Tell(Severity::Fault, "no-dev-shm",
                 fmt::format("/dev/shm cannot be used: {}({})", errno, std::strerror(errno)),
                 "mount -t tmpfs -o mode=1777 tmpfs /dev/shm");
            return;
        }
        if (system.f_type != TMPFS_MAGIC) {
            Tell(Severity::Warning, "dev-shm-no-tmpfs", "/dev/shm is no tmpfs: rings may be slow",
                 "mount -t tmpfs -o mode=1777 tmpfs /dev/shm");
        }
        if (system.f_blocks == 0) {
            return;  // without a limit of its own
        }
        const auto unit = static_cast<std::uint64_t>(system.f_bsize);
        const std::uint64_t free = system.f_bavail * unit;
        const std::uint64_t missing = Unbacked();
        const std::string size = BytesText(static_cast<double>(system.f_blocks * unit));
        const std::string mend = "mount -o remount,size=N /dev/shm, or qev clean";
        if (free == 0) {
            Tell(Severity::Fault, "no-room",
                 fmt::format("/dev/shm is full ({}): the next page that a ring needs is a SIGBUS",
                             size),
                 mend);
        } else if (free < missing) {
            Tell(Severity::Warning, "little-room",
                 fmt::format("/dev/shm has {} free of {}, and rings have still to be given {}: "
                             "beyond that an access is a SIGBUS",
                             BytesText(static_cast<double>(free)), size,
                             BytesText(static_cast<double>(missing))),
                 mend);
        }
    }

    void CheckProtection(const std::string& name) {
        const std::string path = "proc/sys/fs/" + name;
        const auto lines = LinesOf(At(path));
        if (!lines || lines->empty()) {
            TellUnseen("/" + path, "it cannot be read");
        } else if (Trimmed(lines->front()) == "0") {
            Tell(
                Severity::Warning, "protection-off",
                fmt::format("fs.{} is 0: another user can have a process of yours cut or overwrite "
                            "a file of yours",
                            name),
                fmt::format("sysctl -w fs.{}=1", name));
        }
    }

    /// Users of rings and semaphores whose objects a logout removes.
    [[nodiscard]] std::vector<uid_t> OwnersOfObjects() const {
        if (machine_.owners) {
            return *machine_.owners;
        }
        std::vector<std::string> paths;
        for (const std::string& name : RingNames()) {
            paths.push_back(RingPath(name));
        }
        for (const std::string& name : SemaphoreNames()) {
            paths.push_back(SystemSemaphore::PathOf(name));
        }
        std::vector<uid_t> owners{geteuid()};
        for (const std::string& path : paths) {
            struct stat status {};
            if (lstat(path.c_str(), &status) == 0) {
                owners.push_back(status.st_uid);
            }
        }
        std::sort(owners.begin(), owners.end());
        owners.erase(std::unique(owners.begin(), owners.end()), owners.end());
        return owners;
    }

    /// RemoveIPC as logind has it: on unless a file says no.
    [[nodiscard]] bool RemovesAtLogout() const {
        std::vector<fs::path> files{At("etc/systemd/logind.conf")};
        const auto more =
            SettingsIn({At("etc/systemd/logind.conf.d"), At("run/systemd/logind.conf.d"),
                        At("usr/lib/systemd/logind.conf.d")},
                       ".conf");
        files.insert(files.end(), more.begin(), more.end());
        bool removes = true;
        for (const fs::path& file : files) {
            for (const std::string& line : LinesOf(file).value_or(std::vector<std::string>())) {
                const auto equals = line.find('=');
                if (equals != std::string::npos && Trimmed(line.substr(0, equals)) == "RemoveIPC") {
                    const std::string value = Trimmed(line.substr(equals + 1));
                    removes = value == "yes" || value == "true" || value == "on" || value == "1" ||
                              value.empty();
                }
            }
        }
        return removes;
    }

    void CheckLogins() {
        constexpr uid_t kFirstPerson = 1000;
        constexpr uid_t kNobody = 65534;
        std::error_code error;
        const bool hasLogind = fs::exists(At("run/systemd/seats"), error) ||
                               fs::exists(At("run/systemd/users"), error);
        if (!hasLogind || !RemovesAtLogout()) {
            return;
        }
        for (const uid_t owner : OwnersOfObjects()) {
            const std::string user = UserText(owner);
            const bool lingers = fs::exists(At("var/lib/systemd/linger/" + user), error);
            if (owner >= kFirstPerson && owner != kNobody && !lingers) {
                Tell(Severity::Warning, "removed-at-logout",
                     fmt::format("RemoveIPC is on: rings and semaphores of user {} are removed "
                                 "with the last session of that user",
                                 user),
                     fmt::format("loginctl enable-linger {}, or RemoveIPC=no in "
                                 "/etc/systemd/logind.conf",
                                 user));
            }
        }
    }

    /// Lines such as "q /tmp 1777 root root 10d": what is older is removed, lock files too.
    void CheckTidying() {
        const auto files = SettingsIn(
            {At("etc/tmpfiles.d"), At("run/tmpfiles.d"), At("usr/lib/tmpfiles.d")}, ".conf");
        std::string ages;
        bool isExcepted = false;
        for (const fs::path& file : files) {
            for (const std::string& line : LinesOf(file).value_or(std::vector<std::string>())) {
                std::istringstream words(line);
                std::string type;
                std::string path;
                std::string mode;
                std::string user;
                std::string group;
                std::string age;
                words >> type >> path >> mode >> user >> group >> age;
                const bool ofTmp = path == "/tmp" || path == "/tmp/";
                constexpr std::string_view kAging = "dDevqQ";
                if (ofTmp && !type.empty() && kAging.find(type.front()) != std::string_view::npos &&
                    !age.empty() && age != "-") {
                    ages = fmt::format("{} ({})", age, file.filename().string());
                }
                isExcepted = isExcepted || ((type == "x" || type == "X") &&
                                            (path == "/tmp/*_shm.lock" || path == "/tmp/*"));
            }
        }
        std::error_code error;
        const bool isRun = fs::exists(At("run/systemd/system"), error);
        if (!ages.empty() && !isExcepted && isRun) {
            Tell(
                Severity::Warning, "tidied-up",
                fmt::format("systemd-tmpfiles removes files of /tmp after {}, lock files of blocks "
                            "in use too",
                            ages),
                "echo 'x /tmp/*_shm.lock' > /etc/tmpfiles.d/qev.conf");
        }
    }

    const Machine& machine_;
    Findings found_;
};

}  // namespace

Findings CheckMachine(const Machine& machine) {
    return MachineCheckup(machine).Check();
}

}  // namespace qel
