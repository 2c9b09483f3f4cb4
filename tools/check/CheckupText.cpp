#include <fmt/format.h>

#include "Checkup.h"
#include "ObjectCheck.h"
#include "Text.h"
#include "UsersJson.h"

namespace qel {
namespace {

std::string TextOf(const Finding& finding) {
    std::string text = fmt::format("{:<8} {}: {}\n", WordOf(finding.severity), finding.object,
                                   OneLine(finding.text));
    if (!finding.mend.empty()) {
        text += fmt::format("         mend: {}\n", OneLine(finding.mend));
    }
    return text;
}

std::string TextOf(const CheckedObject& object) {
    std::string text;
    if (!IsAnythingWrong(object.findings)) {
        text = fmt::format("sound    {}{}\n", object.object,
                           object.summary.empty() ? "" : ": " + object.summary);
    }
    for (const Finding& finding : object.findings) {
        text += TextOf(finding);
    }
    return text;
}

nlohmann::ordered_json JsonOf(const Finding& finding) {
    nlohmann::ordered_json json{
        {"severity", WordOf(finding.severity)}, {"code", finding.code}, {"text", finding.text}};
    if (!finding.mend.empty()) {
        json["mend"] = finding.mend;
    }
    return json;
}

}  // namespace

std::string TextOf(const Checkup& checkup) {
    std::string text;
    for (const CheckedObject& object : checkup.objects) {
        text += TextOf(object);
    }
    if (const std::string hidden = HiddenText(checkup.hiddenProcesses, checkup.listsAllProcesses);
        !hidden.empty()) {
        text += hidden + ": what they use cannot be seen\n";
    }
    return text + fmt::format("{}, {}, {}\n", Counted(checkup.Count(Severity::Fault), "fault"),
                              Counted(checkup.Count(Severity::Warning), "warning"),
                              Counted(checkup.Count(Severity::Note), "note"));
}

std::string JsonOf(const Checkup& checkup) {
    nlohmann::ordered_json json{{"objects", nlohmann::ordered_json::array()}};
    for (const CheckedObject& object : checkup.objects) {
        nlohmann::ordered_json entry{{"object", object.object},
                                     {"sound", !IsAnythingWrong(object.findings)},
                                     {"summary", object.summary},
                                     {"findings", nlohmann::ordered_json::array()}};
        for (const Finding& finding : object.findings) {
            entry["findings"].push_back(JsonOf(finding));
        }
        json["objects"].push_back(std::move(entry));
    }
    json["faults"] = checkup.Count(Severity::Fault);
    json["warnings"] = checkup.Count(Severity::Warning);
    json["notes"] = checkup.Count(Severity::Note);
    json["hiddenProcesses"] = checkup.hiddenProcesses;
    json["listsAllProcesses"] = checkup.listsAllProcesses;
    return TextOfJson(json);
}

}  // namespace qel
