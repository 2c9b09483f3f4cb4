#include "BlockTable.h"

#include <array>
#include <vector>

#include "DeathTable.h"
#include "Scenes.h"

namespace qel::test {
namespace {

/// How a recorded call begins, and what it is called.
struct Naming {
    const char* call;
    const char* step;
};

constexpr std::array<Naming, 31> kNamings{{
    {"open(LOCK,", "open(lock file)"},
    {"fstat(LOCK)", "fstat(lock file)"},
    {"posix_fallocate(LOCK,", "posix_fallocate(lock file)"},
    {"ftruncate(LOCK,", "ftruncate(lock file)"},
    {"munmap(40)", "munmap(lock file)"},
    {"munmap(16)", "munmap(lock file)"},
    {"munmap(100)", "munmap(lock file)"},
    {"flock(LOCK, 1)", "flock(LOCK_SH)"},
    {"flock(LOCK, 2)", "flock(LOCK_EX)"},
    {"flock(LOCK, 5)", "flock(LOCK_SH, LOCK_NB)"},
    {"flock(LOCK, 6)", "flock(LOCK_EX, LOCK_NB)"},
    {"flock(LOCK, 8)", "flock(LOCK_UN)"},
    {"close(LOCK)", "close(lock file)"},
    {"stat(ANNOUNCED)", "stat(creator's descriptor)"},
    {"open(ANNOUNCED,", "open(creator's descriptor)"},
    {"fstat(MEMORY)", "fstat(memory)"},
    {"fstat(OTHER)", "fstat(another file)"},
    {"close(OTHER)", "close(another file)"},
    {"pread(MEMORY,", "pread(memory)"},
    {"fcntl(MEMORY,", "fcntl(memory, F_SETFD)"},
    {"memfd_create(", "memfd_create"},
    {"ftruncate(MEMORY,", "ftruncate(memory)"},
    {"munmap(72)", "munmap(memory)"},
    {"mprotect(72, 0)", "mprotect(none)"},
    {"mprotect(72, 1)", "mprotect(read)"},
    {"mprotect(72, 2)", "mprotect(write)"},
    {"mprotect(72, 3)", "mprotect(read, write)"},
    {"close(MEMORY)", "close(memory)"},
    {"data(one byte)", "a byte of the data"},
    {"data(half)", "half of the data"},
    {"data(all)", "all of the data"},
}};
static_assert(kDataSize + 8 == 72);

bool Contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

PublishedTable BlockTable() {
    std::vector<std::string> titles;
    for (const Scene& scene : Scenes()) {
        titles.emplace_back(scene.title);
    }
    for (const Scene& scene : TouchingScenes()) {
        titles.push_back(TitleOfAccesses(scene.title));
    }
    return DeathTable("block deaths", "fault_block_deaths", titles);
}

std::string StepOf(const std::string& call) {
    if (call.rfind("mmap(", 0) == 0) {
        return Contains(call, "LOCK")     ? "mmap(lock file)"
               : Contains(call, "MEMORY") ? "mmap(memory)"
                                          : "";
    }
    for (const Naming& naming : kNamings) {
        if (call.rfind(naming.call, 0) == 0) {
            return naming.step;
        }
    }
    return "";
}

std::string TitleOfAccesses(const std::string& title) {
    return title + " (access by access)";
}

}  // namespace qel::test
