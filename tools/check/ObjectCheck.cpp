#include "ObjectCheck.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <utility>

#include "Text.h"
#include "UserText.h"

namespace qel {
namespace {

constexpr unsigned kPermissions = 0777;
constexpr uid_t kSuperuser = 0;

/// In a folder where everybody may make files, none of another's may be opened by a call that would
/// make one, as the library's does; but root's may, whose the folder is.
bool IsProtected(const struct stat& status, uid_t user) {
    std::ifstream setting("/proc/sys/fs/protected_regular");
    int level = 0;
    setting >> level;
    return level != 0 && status.st_uid != kSuperuser && status.st_uid != user;
}

/// Groups are not known: what a group may do counts for everybody.
bool MayOpen(const struct stat& status, uid_t user) {
    if (IsProtected(status, user)) {
        return false;
    }
    const auto allows = [&status](unsigned bits) { return (status.st_mode & bits) == bits; };
    return user == kSuperuser || allows(S_IROTH | S_IWOTH) || allows(S_IRGRP | S_IWGRP) ||
           (user == status.st_uid && allows(S_IRUSR | S_IWUSR));
}

std::string RightsText(const struct stat& status) {
    return fmt::format("belongs to {} with mode {:04o}", UserText(status.st_uid),
                       status.st_mode & kPermissions);
}

}  // namespace

Findings CheckReplaced(const std::string& object, const std::string& path,
                       const struct stat* status, const ProcessSurvey& processes) {
    const auto known = processes.Paths().find(path);
    Findings findings;
    if (known == processes.Paths().end()) {
        return findings;
    }
    for (const auto& [device, inode] : known->second) {
        if (status != nullptr && device == status->st_dev && inode == status->st_ino) {
            continue;
        }
        const auto users = processes.WritersOf(device, inode);
        if (users.empty()) {
            continue;  // who merely looks at the old one will find the new one
        }
        findings.push_back(
            {Severity::Fault, status == nullptr ? "removed" : "replaced", object,
             fmt::format("{} a file of this name that is not {} any more: it was removed in use, "
                         "or {} a folder of {} own there",
                         WithVerb(users, "uses", "use"), OneLine(path),
                         users.size() == 1 ? "the process has" : "they have",
                         users.size() == 1 ? "its" : "their"),
             "restart all who use it"});
    }
    return findings;
}

Findings CheckAccess(const ObjectFile& file, const std::vector<ObjectUser>& users) {
    Findings findings;
    for (const ObjectUser& user : users) {
        if (user.CanWrite() && !MayOpen(file.status, user.uid)) {
            findings.push_back(
                {Severity::Warning, "permission", file.object,
                 fmt::format("process {} runs as user {}, and the object {}: it "
                             "cannot open it once more",
                             UserText(user), UserText(user.uid), RightsText(file.status)),
                 "run all who use it as one user"});
        }
    }
    if (access(file.path.c_str(), R_OK | W_OK) != 0 || IsProtected(file.status, geteuid())) {
        findings.push_back({Severity::Note, "not-yours", file.object,
                            fmt::format("it {}: user {} may not use it", RightsText(file.status),
                                        UserText(geteuid()))});
    }
    return findings;
}

Findings CheckCut(const std::string& object, std::uint64_t length,
                  const std::vector<ObjectUser>& users) {
    const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const std::uint64_t whole = (length + page - 1) / page * page;
    Findings findings;
    for (const ObjectUser& user : users) {
        if (user.mappedTo > whole) {
            findings.push_back({Severity::Fault, "cut", object,
                                fmt::format("process {} maps {} bytes of it, and it has {}: the "
                                            "first access to the rest ends the process",
                                            UserText(user), user.mappedTo, length),
                                "restart all who use it"});
        }
    }
    return findings;
}

std::string ProcessesText(const std::vector<ObjectUser>& users) {
    const std::string word = users.size() == 1 ? "process " : "processes ";
    std::string text;
    for (const ObjectUser& user : users) {
        text += (text.empty() ? word : ", ") + UserText(user);
    }
    return text;
}

std::string WithVerb(const std::vector<ObjectUser>& users, std::string_view ofOne,
                     std::string_view ofMore) {
    return fmt::format("{} {}", ProcessesText(users), users.size() == 1 ? ofOne : ofMore);
}

std::string UseText(const std::vector<ObjectUser>& users, bool areAllSeen) {
    if (!users.empty()) {
        return fmt::format("used by {}", users.size() == 1
                                             ? "1 process"
                                             : fmt::format("{} processes", users.size()));
    }
    return areAllSeen ? "used by nobody" : "used by nobody that can be seen";
}

std::string HiddenText(unsigned hidden, bool seesAll) {
    if (!seesAll) {
        return "/proc does not list all processes to this user";
    }
    return hidden == 0   ? ""
           : hidden == 1 ? "1 process is hidden from this user"
                         : fmt::format("{} processes are hidden from this user", hidden);
}

}  // namespace qel
