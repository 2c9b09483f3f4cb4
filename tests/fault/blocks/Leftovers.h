#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "SharedMemoryMetadata.h"

namespace qel::test {

/// The files in the system's shared directories whose names contain `name`.
std::vector<std::string> FilesNamed(const std::string& name);

/// The processes, this one excepted, that have a memory file open whose label contains `name`, as
/// far as this user may look.
std::vector<pid_t> OtherHoldersOfMemory(const std::string& name);

/// The record in a lock file's `content`, that of nobody if there is none.
SharedMemoryMetadata RecordIn(const std::string& content);

/// The same lock file with `record` in it.
std::string WithRecord(const SharedMemoryMetadata& record);

}  // namespace qel::test
