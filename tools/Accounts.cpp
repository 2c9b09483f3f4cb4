#include "Accounts.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>
#include <vector>

#include "CommandLine.h"

namespace qel {
namespace {

/// Asks `query` with more and more room for the answer.
/// @return nothing if the system knows no such entry
template <typename Entry, typename Query>
std::optional<Entry> Ask(const std::string& name, const Query& query) {
    constexpr std::size_t kMostRoom = 1U << 24U;
    for (std::vector<char> room(1024);; room.resize(room.size() * 2)) {
        Entry entry{};
        Entry* found = nullptr;
        const int error = query(name.c_str(), &entry, room.data(), room.size(), &found);
        if (found != nullptr) {
            return entry;
        }
        if (error == 0 || error == ENOENT || error == ESRCH) {
            return std::nullopt;
        }
        if (error != EINTR && (error != ERANGE || room.size() >= kMostRoom)) {
            throw std::runtime_error(
                fmt::format("cannot look up {}: {}({})", name, error, std::strerror(error)));
        }
    }
}

/// The highest number stands for none.
template <typename Number>
Number NumberIn(const std::string& text, const char* kind) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end || number == std::numeric_limits<Number>::max()) {
        throw UsageError(fmt::format("there is no {} {}", kind, text));
    }
    return number;
}

}  // namespace

uid_t UserNumber(const std::string& text) {
    const auto entry = Ask<passwd>(text, getpwnam_r);
    return entry ? entry->pw_uid : NumberIn<uid_t>(text, "user");
}

gid_t GroupNumber(const std::string& text) {
    const auto entry = Ask<group>(text, getgrnam_r);
    return entry ? entry->gr_gid : NumberIn<gid_t>(text, "group");
}

}  // namespace qel
