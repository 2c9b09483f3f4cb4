#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ProcessSurvey.h"

namespace qel {

[[nodiscard]] nlohmann::ordered_json JsonOfUsers(const std::vector<ObjectUser>& users);

/// One line with its end. Names and commands are bytes: what is no UTF-8 is replaced.
[[nodiscard]] std::string TextOfJson(const nlohmann::ordered_json& json);

}  // namespace qel
