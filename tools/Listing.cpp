#include "Listing.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "BlockView.h"
#include "FileAge.h"
#include "JudgedState.h"
#include "ObjectNames.h"
#include "RingFile.h"
#include "RingFlow.h"
#include "SemaphoreView.h"
#include "SystemSemaphore.h"

namespace qel {
namespace {

/// Rings are looked at twice, some time apart. Processes first: they take descriptors that all the
/// rings might use up.
class Lister {
public:
    Listing List() {
        processes_.emplace(ProcessSurvey::Take());
        std::vector<RingLook> rings;
        for (const std::string& name : RingNames()) {
            rings.push_back(Open(name));
        }
        // What works shows a movement within that time, but for the slowest of pictures.
        constexpr std::chrono::milliseconds kWhile{100};
        if (!rings.empty()) {
            std::this_thread::sleep_for(kWhile);
        }
        for (const RingLook& ring : rings) {
            Add(ring);
        }
        for (const std::string& name : BlockNames()) {
            AddBlock(name);
        }
        for (const std::string& name : SemaphoreNames()) {
            AddSemaphore(name);
        }
        listing_.hiddenProcesses = processes_->HiddenProcesses();
        listing_.listsAllProcesses = processes_->ListsAll();
        return std::move(listing_);
    }

private:
    struct RingLook {
        std::string name;
        std::optional<RingFile> file;
        RingFields fields;
        std::string trouble;
    };

    static RingLook Open(const std::string& name) {
        RingLook look{name, std::nullopt, {}, {}};
        try {
            look.file = RingFile::Open(name);
        } catch (const std::runtime_error& reason) {
            look.trouble = reason.what();
        }
        if (look.file) {
            look.fields = look.file->Fields();
        }
        return look;
    }

    /// What nobody uses that can be seen, nobody may be said to use only if all can be.
    [[nodiscard]] std::string Unused(const char* word) const {
        return processes_->SeesAll() ? word : "unseen";
    }

    void Add(const RingLook& ring) {
        if (!ring.file && ring.trouble.empty()) {
            return;  // gone meanwhile
        }
        ListedObject object{"ring", ring.name, "unreadable", ring.trouble};
        if (ring.file) {
            const struct stat& status = ring.file->Status();
            const RingFields now = ring.file->Fields();
            object.users = processes_->UsersOf(status.st_dev, status.st_ino);
            object.size = ring.file->Size();
            object.state = TextOf(JudgedStateOf(*ring.file, now, now != ring.fields, *processes_));
            if (const auto flow =
                    FlowOf(now, ring.file->Size(), LastNodeReached(now, ring.file->Size()));
                flow && now.LookInitialised()) {
                object.fill =
                    1 - static_cast<double>(flow->free) / static_cast<double>(*object.size);
            }
            object.content =
                now.maxPackets == 0 ? "" : fmt::format("{}/{}", now.numPackets, now.maxPackets);
        }
        object.age = AgeOf(RingPath(ring.name));
        listing_.objects.push_back(std::move(object));
    }

    void AddBlock(const std::string& name) {
        ListedObject object{"block", name, "unreadable", {}};
        try {
            const auto block = LookAtBlock(name, *processes_);
            if (!block) {
                return;
            }
            object.state = StateOf(*block);
            object.size = block->size;
            object.users = block->openBy;
            object.age = AgeOf(block->lockFile);
        } catch (const std::runtime_error& reason) {
            object.trouble = reason.what();
        }
        listing_.objects.push_back(std::move(object));
    }

    void AddSemaphore(const std::string& name) {
        ListedObject object{"semaphore", name, "unreadable", {}};
        try {
            const auto semaphore = LookAtSemaphore(name);
            if (!semaphore) {
                return;
            }
            object.users = processes_->UsersOf(semaphore->status.st_dev, semaphore->status.st_ino);
            object.state = !semaphore->isWhole    ? "damaged"
                           : object.users.empty() ? Unused("orphaned")
                                                  : "live";
            if (semaphore->isWhole) {
                object.content = fmt::format("value {}", semaphore->value);
            }
            object.age = AgeOf(SystemSemaphore::PathOf(name));
        } catch (const std::runtime_error& reason) {
            object.trouble = reason.what();
        }
        listing_.objects.push_back(std::move(object));
    }

    std::optional<ProcessSurvey> processes_;
    Listing listing_;
};

}  // namespace

Listing ListObjects() {
    return Lister().List();
}

}  // namespace qel
