#include "UserText.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

#include <array>

#include "Text.h"

namespace qel {
namespace {

constexpr std::size_t kMostBytes = 4096;  // of an entry; a longer one is shown by its number

}  // namespace

std::string UserText(uid_t uid) {
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, kMostBytes> buffer{};
    (void)getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    return found == nullptr ? std::to_string(uid) : OneLine(found->pw_name);
}

std::string GroupText(gid_t gid) {
    group entry{};
    group* found = nullptr;
    std::array<char, kMostBytes> buffer{};
    (void)getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found);
    return found == nullptr ? std::to_string(gid) : OneLine(found->gr_name);
}

std::string UserText(const ObjectUser& user) {
    std::string roles;
    for (const unsigned node : user.Nodes()) {
        roles += fmt::format("{}node {}", roles.empty() ? "" : ", ", node);
    }
    if (user.state == 'T' || user.state == 't') {
        roles += fmt::format("{}stopped", roles.empty() ? "" : ", ");
    }
    const std::string brackets = roles.empty() ? "" : " (" + roles + ")";
    return fmt::format("{} {}{}", user.pid, OneLine(user.command), brackets);
}

}  // namespace qel
