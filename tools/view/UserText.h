#pragma once

#include <sys/types.h>

#include <string>

#include "ProcessSurvey.h"

namespace qel {

/// The name of a user or group, or its number where it has none.
[[nodiscard]] std::string UserText(uid_t uid);
[[nodiscard]] std::string GroupText(gid_t gid);

/// "4711 camera (node 0)": process, command, the nodes that it claims, and "stopped" if it is.
[[nodiscard]] std::string UserText(const ObjectUser& user);

}  // namespace qel
