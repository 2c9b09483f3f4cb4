#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Collector.h"
#include "CommandLine.h"
#include "Figures.h"
#include "LiveView.h"
#include "RingRules.h"
#include "Signals.h"
#include "Verbs.h"

namespace qel {
namespace {

struct TopOptions {
    LiveOptions live;
    bool once = false;
    bool json = false;
    unsigned count = 1;
    CLI::Option* countOption = nullptr;
};

void RequireThere(const Snapshot& snapshot, const std::vector<std::string>& names) {
    const auto isNamed = [](const std::string& name) {
        return [&name](const auto& row) { return row.name == name; };
    };
    for (const std::string& name : names) {
        const auto isAmong = [&](const auto& rows) {
            return std::any_of(rows.begin(), rows.end(), isNamed(name));
        };
        if (!isAmong(snapshot.rings) && !isAmong(snapshot.blocks) &&
            !isAmong(snapshot.semaphores)) {
            throw std::runtime_error("there is no ring, block or semaphore " + name);
        }
    }
}

/// Prints figures at the end of each interval.
int PrintFigures(const TopOptions& options) {
    using Clock = Collector::Clock;
    Collector collector(options.live.names, options.live.interval);
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(options.live.interval));
    Clock::time_point end = Clock::now();
    for (unsigned printed = 0; printed < options.count || options.count == 0; ++printed) {
        end += interval;
        collector.WatchUntil(end, [](Clock::duration length) {
            if (!Signals::Any()) {
                SleepFor(length);
            }
            return Signals::Any();
        });
        if (Signals::Any()) {
            return ExitInterrupted(Signals::First());
        }
        const Snapshot snapshot = collector.Take();
        RequireThere(snapshot, options.live.names);
        Print(options.json ? JsonOf(snapshot) : TextOf(snapshot));
    }
    return 0;
}

int RunLive(const TopOptions& options) {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
        throw UsageError(
            "standard input and output are to be a terminal; without one, --once or --json");
    }
    ShowLive(options.live, Signals::Any);
    const int signal = Signals::First();
    return signal == 0 || signal == SIGINT ? 0 : ExitInterrupted(signal);
}

int RunTop(const TopOptions& options) {
    constexpr double kShortest = 0.1;
    constexpr double kLongest = 3600;
    const bool isInRange =
        options.live.interval >= kShortest && options.live.interval <= kLongest;  // no for a NaN
    if (!isInRange) {
        throw UsageError(fmt::format("--interval: {} is not in range {} to {}",
                                     options.live.interval, kShortest, kLongest));
    }
    const bool prints = options.once || options.json;
    if (!prints && !options.countOption->empty()) {
        throw UsageError("--count is for --once or --json");
    }
    Signals::Catch();
    return prints ? PrintFigures(options) : RunLive(options);
}

}  // namespace

Verb AddTopVerb(CLI::App& app) {
    auto options = std::make_shared<TopOptions>();
    static const std::map<std::string, Order> kOrders{{"name", Order::Name},
                                                      {"rate", Order::Rate},
                                                      {"fill", Order::Fill},
                                                      {"latency", Order::Latency}};
    CLI::App* const command = app.add_subcommand(
        "top",
        "Show live what all rings do: rates, latency, where the bytes are, who is which node");
    command->add_option("NAME", options->live.names, "Only these rings, blocks and semaphores")
        ->option_text(" ");
    command->add_option("--interval", options->live.interval, "From one picture to the next")
        ->option_text("SECONDS [0.5]");
    command
        ->add_option("--sort", options->live.order,
                     "First order of the rings: by name, rate, fill or latency")
        ->transform(CLI::CheckedTransformer(kOrders, CLI::ignore_case))
        ->option_text("ORDER [name]");
    command
        ->add_option("--filter", options->live.filter, "Show names that hold this, to begin with")
        ->option_text("TEXT");
    command->add_flag("--once", options->once,
                      "Print the figures of one interval as text; needs no terminal");
    command->add_flag("--json", options->json,
                      "Print them as JSON, one line for each interval; needs no terminal");
    options->countOption =
        command
            ->add_option("--count", options->count,
                         "With --once or --json: how many intervals; 0: until interrupted")
            ->option_text("N [1]");
    command->footer(
        "Changes nothing and takes no node. In the live view ? shows the keys and what the "
        "columns\n"
        "mean. A ring's bar has 1 for bytes that wait for node 1, A for bytes that node 1 holds, "
        "2\n"
        "and B for node 2 and so on, . for free space. ~ stands before estimates: a node may have\n"
        "gone round the ring unseen, or not all headers were looked at; > before figures of rings\n"
        "that go round too quickly to be followed. \"full\" is the share of time in which the "
        "writer\n"
        "had to wait or drop; dropped packets leave no trace in a ring.\n"
        "\n"
        "Exit status of the live view: 0 when quit by q or Ctrl-C, 128 + signal for others.\n"
        "\n"
        "Examples:\n"
        "  qev top --sort latency\n"
        "  qev top camera --once\n"
        "  qev top --json --interval 1 --count 60 | jq '.rings[] | [.name, .fill]'");
    return {command, [options] { return RunTop(*options); }};
}

}  // namespace qel
