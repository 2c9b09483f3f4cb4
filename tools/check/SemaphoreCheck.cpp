#include <fmt/format.h>
#include <semaphore.h>

#include <climits>
#include <stdexcept>

#include "BlockCheck.h"
#include "ObjectCheck.h"
#include "SemaphoreView.h"
#include "SystemSemaphore.h"
#include "Text.h"

namespace qel {

ObjectReport CheckSemaphore(const std::string& name, const ProcessSurvey& processes) {
    const auto semaphore = LookAtSemaphore(name);
    if (!semaphore) {
        throw std::runtime_error("there is no semaphore " + OneLine(name));
    }
    const std::string object = "semaphore " + OneLine(name);
    const std::string path = SystemSemaphore::PathOf(name);
    const auto& users = processes.UsersOf(semaphore->status.st_dev, semaphore->status.st_ino);
    ObjectReport report{
        fmt::format("value {}, {}", semaphore->value, UseText(users, processes.SeesAll())),
        CheckReplaced(object, path, &semaphore->status, processes)};
    if (!semaphore->isWhole) {
        report.findings.push_back(
            {Severity::Fault, "damaged", object,
             fmt::format("its file has {} bytes, not {}", semaphore->status.st_size, sizeof(sem_t)),
             "stop who uses it, then " + QevCommand("clean", name)});
    }
    if (semaphore->isWhole && semaphore->value > SEM_VALUE_MAX) {
        report.findings.push_back(
            {Severity::Fault, "damaged", object,
             fmt::format("its value is {}, and none is above {}", semaphore->value, SEM_VALUE_MAX),
             "stop who uses it, then " + QevCommand("clean", name)});
    }
    for (Finding& finding : CheckAccess({object, path, semaphore->status}, users)) {
        report.findings.push_back(std::move(finding));
    }
    return report;
}

}  // namespace qel
