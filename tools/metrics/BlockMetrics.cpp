#include "BlockMetrics.h"

#include <sys/stat.h>

#include <algorithm>

#include "BlockView.h"
#include "LabelText.h"

namespace qel {
namespace {

constexpr MetricKind kSize{"qev_block_size_bytes",
                           "Bytes of data in the block, if a process that can be seen has it "
                           "open."};
constexpr MetricKind kUsers{"qev_block_users", "Processes that have the block mapped."};
constexpr MetricKind kLockHolders{"qev_block_lock_holders",
                                  "Processes that hold the block's lock, by kind of lock."};
constexpr MetricKind kState{
    "qev_block_state",
    "What the block's creator is: alive; gone; stale: gone, and its numbers are used by another; "
    "hidden from the exporter's user; none: no block was ever made."};

std::string_view CreatorStateOf(const BlockView& block) {
    if (!block.record) {
        return "none";
    }
    switch (block.creator) {
        case BlockCreator::Alive:
            return "alive";
        case BlockCreator::Gone:
            return "gone";
        case BlockCreator::Other:
            return "stale";
        case BlockCreator::Hidden:
            break;
    }
    return "hidden";
}

unsigned HoldersOf(const std::vector<ObjectUser>& users, OpenDescriptor::Lock lock) {
    unsigned holders = 0;
    for (const ObjectUser& user : users) {
        for (const OpenDescriptor& descriptor : user.descriptors) {
            holders += descriptor.lock == lock ? 1 : 0;
        }
    }
    return holders;
}

void AddLockHolders(const MetricLabels& labels, const std::string& lockFile,
                    const ProcessSurvey& processes, MetricFamilies& families) {
    struct stat status {};
    if (lstat(lockFile.c_str(), &status) != 0) {
        return;  // removed since it was looked at
    }
    const auto& users = processes.UsersOf(status.st_dev, status.st_ino);
    const auto add = [&](const char* text, OpenDescriptor::Lock lock) {
        MetricLabels all = labels;
        all.push_back({"lock", text});
        families.Add(kLockHolders, std::move(all), HoldersOf(users, lock));
    };
    add("shared", OpenDescriptor::Lock::Shared);
    add("exclusive", OpenDescriptor::Lock::Exclusive);
}

}  // namespace

void AddBlock(const std::string& name, const ProcessSurvey& processes, MetricFamilies& families) {
    const auto block = LookAtBlock(name, processes);
    if (!block) {
        return;
    }
    const MetricLabels labels{{"block", LabelText(name)}};
    families.AddState(kState, labels, {"alive", "gone", "stale", "hidden", "none"},
                      CreatorStateOf(*block));
    const auto& users = block->openBy;
    families.Add(kUsers, labels,
                 ValueOf(std::count_if(users.begin(), users.end(),
                                       [](const ObjectUser& user) { return user.maps; })));
    if (block->size) {
        families.Add(kSize, labels, ValueOf(*block->size));
    }
    AddLockHolders(labels, block->lockFile, processes, families);
}

}  // namespace qel
