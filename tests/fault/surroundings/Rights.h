#pragma once

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <string>

#include "Fate.h"

// What a process is and what it sees: its user, and its namespaces.
namespace qel::test {

inline constexpr uid_t kNobody = 65534;

inline bool IsRoot() {
    return ::geteuid() == 0;
}

/// Makes this process, which was forked for it, another user's. As with every change of user, the
/// kernel then takes it for one that may hold secrets, unless `dumpable` says otherwise.
/// @return false if it may not
inline bool BecomeUser(uid_t user, bool dumpable = true) {
    if (::setgroups(0, nullptr) == -1 || ::setresgid(user, user, user) == -1 ||
        ::setresuid(user, user, user) == -1) {
        return false;
    }
    ::prctl(PR_SET_DUMPABLE, dumpable ? 1 : 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // the change of user has taken it back
    return true;
}

/// True for a process that may look into every other.
inline bool MayTraceAll() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "CapEff:" && status >> word) {
            constexpr unsigned long kTrace = 1UL << 19U;  // CAP_SYS_PTRACE
            return (std::stoul(word, nullptr, 16) & kTrace) != 0;
        }
    }
    return false;
}

/// Gives this process namespaces of its own, in a user namespace where it has no right otherwise.
/// Mounts in it are seen by nobody else.
/// @return false if it may not
inline bool EnterNamespaces(int flags) {
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    if (::unshare(flags) == -1) {
        if (::unshare(CLONE_NEWUSER | flags) == -1) {
            return false;
        }
        std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
        std::ofstream("/proc/self/setgroups") << "deny";  // else the map is refused
        std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    }
    return (flags & CLONE_NEWNS) == 0 ||
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Puts an empty file system in memory over `path`; needs a mount namespace of its own.
inline bool MountMemory(const char* path, const std::string& options = "mode=1777") {
    return ::mount("tmpfs", path, "tmpfs", 0, options.c_str()) == 0;
}

inline const std::string kNoNamespaces = Skip("this process may not have namespaces of its own");
inline const std::string kNotRoot = Skip("only root can become another user");

}  // namespace qel::test
