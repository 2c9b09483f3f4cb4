#include "MachineMetrics.h"

#include <sys/statvfs.h>

#include <cerrno>

#include "File.h"

namespace qel {
namespace {

constexpr MetricKind kShmSize{"qev_shm_size_bytes", "Size of /dev/shm."};
constexpr MetricKind kShmFree{"qev_shm_free_bytes", "Room left in /dev/shm."};
constexpr MetricKind kHidden{"qev_hidden_processes",
                             "Processes that the exporter's user may not look into. They may use "
                             "any object and are in no count of users."};
constexpr MetricKind kListsAll{"qev_all_processes_listed",
                               "1 if /proc lists the processes of all users to the exporter's."};

constexpr const char* kFolder = "/dev/shm";

}  // namespace

void AddMachine(const ProcessSurvey& processes, MetricFamilies& families) {
    families.Add(kHidden, {}, processes.HiddenProcesses());
    families.Add(kListsAll, {}, processes.ListsAll() ? 1 : 0);
    struct statvfs room {};
    if (statvfs(kFolder, &room) != 0) {
        FailToRead(kFolder, errno);
    }
    families.Add(kShmSize, {}, ValueOf(room.f_blocks) * ValueOf(room.f_frsize));
    families.Add(kShmFree, {}, ValueOf(room.f_bavail) * ValueOf(room.f_frsize));
}

}  // namespace qel
