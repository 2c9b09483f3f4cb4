#include "Checkup.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>

#include "BlockCheck.h"
#include "MachineCheck.h"
#include "ObjectCheck.h"
#include "ObjectNames.h"
#include "ProcessSurvey.h"
#include "RingCheck.h"
#include "RingFile.h"
#include "RingFlow.h"
#include "SystemSemaphore.h"
#include "Text.h"

namespace qel {
namespace {

bool IsNamed(const std::vector<std::string>& names, const std::string& name) {
    return names.empty() || std::find(names.begin(), names.end(), name) != names.end();
}

class Doctor {
public:
    explicit Doctor(const CheckupOptions& options)
        : options_(options), processes_(ProcessSurvey::Take()) {}

    Checkup Check() {
        CheckAll("ring", RingNames(),
                 [this](const std::string& name) { return CheckOneRing(name); });
        CheckAll("block", BlockNames(),
                 [this](const std::string& name) { return CheckBlock(name, processes_); });
        CheckAll("semaphore", SemaphoreNames(),
                 [this](const std::string& name) { return CheckSemaphore(name, processes_); });
        CheckRemoved();
        RequireAll();
        if (options_.names.empty()) {
            checkup_.objects.push_back({"machine", "", CheckMachine({options_.root})});
        }
        checkup_.hiddenProcesses = processes_.HiddenProcesses();
        checkup_.listsAllProcesses = processes_.ListsAll();
        return std::move(checkup_);
    }

private:
    void CheckAll(const std::string& kind, const std::vector<std::string>& names,
                  const std::function<ObjectReport(const std::string&)>& check) {
        for (const std::string& name : names) {
            if (!IsNamed(options_.names, name)) {
                continue;
            }
            found_.push_back(name);
            const std::string object = kind + " " + OneLine(name);
            try {
                ObjectReport report = check(name);
                checkup_.objects.push_back({object, report.summary, std::move(report.findings)});
            } catch (const std::runtime_error& reason) {
                checkup_.objects.push_back(
                    {object,
                     "",
                     {{options_.names.empty() ? Severity::Note : Severity::Warning,
                       "cannot-be-seen", object,
                       fmt::format("cannot be seen: {}", OneLine(reason.what()))}}});
            }
        }
    }

    ObjectReport CheckOneRing(const std::string& name) {
        const auto ring = RingFile::Open(name);
        if (!ring) {
            throw std::runtime_error("it was removed at this moment");
        }
        RingCheckOptions options;
        options.judge.nodes = options_.nodes;
        options.judge.lookAgain = [&ring] { return RingUsers::Of(*ring, ProcessSurvey::Take()); };
        options.maxFrames = options_.maxFrames;
        const RingUsers users = RingUsers::Of(*ring, processes_);
        const std::string object = "ring " + OneLine(name);
        ObjectReport report{"", CheckRing(*ring, users, options)};
        const struct stat& status = ring->Status();
        Add(report.findings, CheckReplaced(object, RingPath(name), &status, processes_));
        Add(report.findings, CheckAccess({object, RingPath(name), status}, users.users));
        Add(report.findings,
            CheckCut(object, static_cast<std::uint64_t>(ring->StatusNow().st_size), users.users));
        report.summary = SummaryOf(*ring, users, report.findings);
        return report;
    }

    [[nodiscard]] std::string SummaryOf(const RingFile& ring, const RingUsers& users,
                                        Findings& findings) const {
        const RingFields fields = ring.Fields();
        const std::string size = BytesText(static_cast<double>(ring.Size()));
        const std::string use = UseText(users.users, !users.MayBeHidden());
        if (fields.initialised == 0) {
            return fmt::format("{}, not yet opened, {}", size, use);
        }
        const unsigned sink = SinksOf(fields, ring.Size(), users, options_.nodes).likely.front();
        const auto flow = FlowOf(fields, ring.Size(), sink);
        if (users.AreNone() && flow && flow->Sum() == ring.Size() && flow->InUse() > 0) {
            findings.push_back(
                {Severity::Note, "orphaned", "ring " + OneLine(ring.Name()),
                 fmt::format("nobody uses it, and {} are in it", Counted(flow->InUse(), "byte")),
                 "start its processes, or " + QevCommand("clean", ring.Name())});
        }
        return fmt::format("{}, {} nodes{}, {}", size, sink + 1,
                           options_.nodes || users.LastClaimed() == sink ? "" : " or more", use);
    }

    /// The semaphores that there are. Who has made one knows it by another name: the C library
    /// makes it under a name of its own, and then gives it the right one.
    static ProcessSurvey::Inodes PresentSemaphores() {
        ProcessSurvey::Inodes present;
        for (const std::string& name : SemaphoreNames()) {
            struct stat status {};
            if (lstat(SystemSemaphore::PathOf(name).c_str(), &status) == 0) {
                present.emplace(status.st_dev, status.st_ino);
            }
        }
        return present;
    }

    /// Objects that are in use and in no folder any more.
    void CheckRemoved() {
        const ProcessSurvey::Inodes semaphores = PresentSemaphores();
        for (const auto& [path, inodes] : processes_.Paths()) {
            struct stat status {};
            const auto [kind, name] = ObjectAt(path);
            const bool isThere = lstat(path.c_str(), &status) == 0;
            if (kind.empty() || isThere || !IsNamed(options_.names, name)) {
                continue;
            }
            const std::string object = kind + " " + OneLine(name);
            Findings findings = CheckReplaced(object, path, nullptr, processes_);
            if (kind == "semaphore") {
                if (std::includes(semaphores.begin(), semaphores.end(), inodes.begin(),
                                  inodes.end())) {
                    continue;
                }
                for (Finding& finding : findings) {  // many are removed as soon as they are shared
                    finding.severity = Severity::Note;
                }
            }
            if (!findings.empty()) {
                found_.push_back(name);
                checkup_.objects.push_back({object, "", std::move(findings)});
            }
        }
    }

    /// Kind and name; both empty if no object stands there.
    static std::pair<std::string, std::string> ObjectAt(const std::string& path) {
        const auto between = [&path](const std::string& before, const std::string& behind) {
            const bool is = path.size() > before.size() + behind.size() &&
                            path.compare(0, before.size(), before) == 0 &&
                            path.compare(path.size() - behind.size(), behind.size(), behind) == 0;
            return is ? path.substr(before.size(), path.size() - before.size() - behind.size())
                      : std::string();
        };
        for (const auto& [kind, before, behind] :
             {std::tuple("semaphore", "/dev/shm/sem.", ""), std::tuple("ring", "/dev/shm/", ".shm"),
              std::tuple("block", "/tmp/", "_shm.lock")}) {
            if (const std::string name = between(before, behind); !name.empty()) {
                return {kind, name};
            }
        }
        return {};
    }

    void RequireAll() const {
        for (const std::string& name : options_.names) {
            if (std::find(found_.begin(), found_.end(), name) == found_.end()) {
                throw std::runtime_error("there is no ring, block or semaphore " + OneLine(name));
            }
        }
    }

    const CheckupOptions& options_;
    ProcessSurvey processes_;
    std::vector<std::string> found_;
    Checkup checkup_;
};

}  // namespace

unsigned Checkup::Count(Severity severity) const {
    unsigned count = 0;
    for (const CheckedObject& object : objects) {
        count += static_cast<unsigned>(std::count_if(
            object.findings.begin(), object.findings.end(),
            [severity](const auto& finding) { return finding.severity == severity; }));
    }
    return count;
}

Checkup CheckObjects(const CheckupOptions& options) {
    return Doctor(options).Check();
}

}  // namespace qel
