#pragma once

#include <string>

#include "Snapshot.h"

namespace qel {

/// A snapshot for people, without a terminal.
[[nodiscard]] std::string TextOf(const Snapshot& snapshot);

/// A snapshot for scripts: one line of JSON.
[[nodiscard]] std::string JsonOf(const Snapshot& snapshot);

}  // namespace qel
