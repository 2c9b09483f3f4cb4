#include "SingleStage.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <optional>

#include "Report.h"
#include "Signals.h"

namespace qel {
namespace {

/// Says when a producer that was interrupted gives up sending its end mark: a chain that runs makes
/// room for it at once, but there may be none.
class Patience {
public:
    bool IsOver() {
        if (!Signals::Any()) {
            return false;
        }
        const auto now = std::chrono::steady_clock::now();
        if (!since_) {
            since_ = now;
        }
        return Signals::Count() > 1 || now - *since_ > std::chrono::seconds(1);
    }

private:
    std::optional<std::chrono::steady_clock::time_point> since_;
};

}  // namespace

void AddStageOptions(CLI::App& command, SingleStage& stage) {
    command.add_option("--name", stage.ring.name, "Name of the ring, the same for all its nodes")
        ->required()
        ->option_text("NAME");
    AddRingOptions(command, stage.ring);
}

int RunSingleStage(const std::string& verb, const SingleStage& stage, const StageBody& body) {
    Signals::Catch();
    const auto buffer = OpenStage(stage.ring, static_cast<std::uint8_t>(stage.node), stage.sink);
    const auto interrupted = Signals::Any;
    Patience patience;
    const bool isProducer = stage.node == 0;
    const StageStops stops{interrupted, isProducer
                                            ? StopPredicate([&] { return patience.IsOver(); })
                                            : StopPredicate(interrupted)};
    StageCounters counters;
    const StageEnd end = body(*buffer, stops, counters);

    const char* const note = end == StageEnd::EndOfStream ? "" : "; the stream did not end";
    (void)std::fprintf(stderr, "qev %s: %s%s%s\n", verb.c_str(),
                       StageLine(ReportOf(counters)).c_str(), note,
                       interrupted() ? "; interrupted" : "");
    return interrupted() ? ExitInterrupted(Signals::First()) : 0;
}

}  // namespace qel
