#pragma once

#include <string>

#include "HelpTree.h"

namespace qel {

/// Name of the manual page of `command`, without its section: "qev-block-read".
[[nodiscard]] std::string PageName(const HelpCommand& command);

/// The manual page of `command`, for man(1).
/// @param root    the whole command
/// @param parent  what `command` is a verb of; nothing for `root`
[[nodiscard]] std::string ManPageOf(const HelpCommand& command, const HelpCommand& root,
                                    const HelpCommand* parent);

}  // namespace qel
