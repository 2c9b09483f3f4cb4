#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Finding.h"
#include "ProcessSurvey.h"

namespace qel {

/// A file in the file system that stands for an object.
struct ObjectFile {
    std::string object;  ///< as findings call it: "ring camera"
    std::string path;
    struct stat status {};
};

/// Who uses something of this path that is not there any more: it was removed or replaced, or the
/// process has a folder of its own in that place.
[[nodiscard]] Findings CheckReplaced(const std::string& object, const std::string& path,
                                     const struct stat* status, const ProcessSurvey& processes);

/// Users of an object that could not open it once more, and this user.
[[nodiscard]] Findings CheckAccess(const ObjectFile& file, const std::vector<ObjectUser>& users);

/// Who maps more of a file of `length` bytes than there is.
[[nodiscard]] Findings CheckCut(const std::string& object, std::uint64_t length,
                                const std::vector<ObjectUser>& users);

/// "process 12 camera", "processes 12 camera, 13 encoder".
[[nodiscard]] std::string ProcessesText(const std::vector<ObjectUser>& users);

/// "process 12 camera uses", "processes 12 camera, 13 encoder use".
[[nodiscard]] std::string WithVerb(const std::vector<ObjectUser>& users, std::string_view ofOne,
                                   std::string_view ofMore);

/// "used by 2 processes"; of none, "used by nobody", with what cannot be seen.
/// @param areAllSeen  nobody else can use it
[[nodiscard]] std::string UseText(const std::vector<ObjectUser>& users, bool areAllSeen);

/// "12 processes are hidden from this user"; empty if all can be seen.
[[nodiscard]] std::string HiddenText(unsigned hidden, bool seesAll);

}  // namespace qel
