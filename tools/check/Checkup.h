#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Finding.h"

namespace qel {

struct CheckupOptions {
    std::vector<std::string> names;  ///< of objects of any kind; none: all, and the machine
    std::optional<unsigned> nodes;
    std::optional<std::uint32_t> maxFrames;
    std::string root = "/";  ///< where the machine's settings are read
};

/// What was found of one object, or of the machine.
struct CheckedObject {
    std::string object;   ///< "ring camera", "machine"
    std::string summary;  ///< "64.0 MiB, 3 nodes, used by 2 processes"
    Findings findings;
};

struct Checkup {
    std::vector<CheckedObject> objects;
    unsigned hiddenProcesses = 0;
    bool listsAllProcesses = true;

    [[nodiscard]] unsigned Count(Severity severity) const;
};

/// Looks at objects, and at what the machine does to them. Nothing is changed, and nobody waits.
/// @throws std::runtime_error when a named object is not there, or a folder cannot be read
[[nodiscard]] Checkup CheckObjects(const CheckupOptions& options);

[[nodiscard]] std::string TextOf(const Checkup& checkup);
[[nodiscard]] std::string JsonOf(const Checkup& checkup);

}  // namespace qel
