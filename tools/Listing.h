#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ProcessSurvey.h"

namespace qel {

/// What `qev ls` tells of one object.
struct ListedObject {
    std::string kind;  ///< "ring", "block" or "semaphore"
    std::string name;
    std::string state;
    std::string trouble;                  ///< why it cannot be looked at; empty otherwise
    std::optional<std::uint64_t> size{};  ///< of the data, in bytes
    std::optional<double> fill{};         ///< part of a ring that is in use, 0 to 1
    std::string content{};                ///< packets of a ring, value of a semaphore
    std::optional<std::int64_t> age{};    ///< seconds since it was made
    std::vector<ObjectUser> users{};
};

struct Listing {
    std::vector<ListedObject> objects;
    unsigned hiddenProcesses = 0;
    bool listsAllProcesses = true;
};

/// Looks at all rings, blocks and semaphores of this machine.
/// @throws std::runtime_error when a folder cannot be read
[[nodiscard]] Listing ListObjects();

[[nodiscard]] std::string TextOf(const Listing& listing);
[[nodiscard]] std::string JsonOf(const Listing& listing);

}  // namespace qel
