#pragma once

#include <functional>
#include <string>
#include <vector>

#include "TopState.h"

namespace qel {

/// How the live view begins.
struct LiveOptions {
    std::vector<std::string> names{};  ///< of the objects; empty: all
    double interval = 0.5;             ///< seconds
    Order order = Order::Name;
    std::string filter{};
};

/// Shows objects on the terminal until the user quits, the terminal goes or `stop` is true: it is
/// asked after each signal that is handled, and at the end of each interval at the latest.
/// @throws std::runtime_error
void ShowLive(const LiveOptions& options, const std::function<bool()>& stop);

}  // namespace qel
