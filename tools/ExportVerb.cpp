#include <fmt/format.h>
#include <prometheus/text_serializer.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "CommandLine.h"
#include "MetricsServer.h"
#include "ObjectCollector.h"
#include "RingWatcher.h"
#include "Signals.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

struct ExportOptions {
    std::string listen = "127.0.0.1:9464";
    ObjectChoice choice{{}, 100};
    bool once = false;
};

void TellUnseen(const std::string& reason) {
    (void)std::fprintf(stderr, "qev export: %s\n", OneLine(reason).c_str());
}

void WatchFor(RingWatcher& watcher, std::chrono::milliseconds time) {
    watcher.WatchUntil(RingMeter::Clock::now() + time, Signals::Any);
}

int PrintOnce(const ExportOptions& options) {
    // What works shows a movement within that time, but for the slowest of pictures.
    constexpr std::chrono::milliseconds kWhile{100};
    const auto totals = std::make_shared<RingTotals>(RingTotals::Use::States);
    RingWatcher watcher(options.choice, totals);
    WatchFor(watcher, kWhile);
    const ObjectCollector collector(options.choice, totals, TellUnseen);
    Print(prometheus::TextSerializer().Serialize(collector.Collect()));
    return 0;
}

int ServeUntilStopped(const ExportOptions& options) {
    constexpr std::chrono::milliseconds kRound{1000};
    const ListenAddress address = [&options] {
        try {
            return ListenAddress(options.listen);
        } catch (const std::invalid_argument& reason) {
            throw UsageError(std::string("--listen: ") + reason.what());
        }
    }();
    Signals::Catch();
    const auto totals = std::make_shared<RingTotals>(RingTotals::Use::Totals);
    RingWatcher watcher(options.choice, totals);
    const MetricsServer server(
        address, std::make_shared<ObjectCollector>(options.choice, totals, TellUnseen));
    Print(fmt::format("metrics at {}\n", server.Url()));
    while (!Signals::Any()) {
        WatchFor(watcher, kRound);
    }
    return 0;
}

}  // namespace

Verb AddExportVerb(CLI::App& app) {
    auto options = std::make_shared<ExportOptions>();
    CLI::App* const command =
        app.add_subcommand("export", "Metrics of all objects for Prometheus, over HTTP");
    CLI::Option* const listen =
        command
            ->add_option("--listen", options->listen,
                         "IPv4 address and port to listen on; port 0 takes a free one")
            ->option_text(fmt::format("ADDRESS:PORT [{}]", options->listen));
    command
        ->add_option("--name", options->choice.patterns,
                     "Show objects of this name only, or that match this pattern (*, ?, [a-z]); "
                     "may be given several times")
        ->option_text("PATTERN")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    constexpr std::size_t kFewest = 1;
    constexpr std::size_t kMost = 400;
    command
        ->add_option("--max-objects", options->choice.most,
                     "Show at most N rings, N blocks and N semaphores, the first by name; 1 to 400")
        ->check(CLI::Range(kFewest, kMost))
        ->option_text(fmt::format("N [{}]", options->choice.most));
    command
        ->add_flag("--once", options->once,
                   "Print the metrics once and end, for the text-file collector of node_exporter")
        ->excludes(listen);
    command->footer(
        "Answers GET /metrics until SIGINT or SIGTERM (status 0), and prints the address first.\n"
        "Takes no node and changes nothing. There is neither encryption nor a password: listen on\n"
        "other addresses than 127.0.0.1 in networks that you trust only. With --once nothing can\n"
        "be counted up: there are no ..._total metrics of rings then.\n"
        "\n"
        "Examples:\n"
        "  qev export\n"
        "  qev export --listen 0.0.0.0:9464 --name 'camera*'\n"
        "  qev export --once > /var/lib/prometheus/node-exporter/qev.prom.new");
    return {command, [options] {
                return options->once ? PrintOnce(*options) : ServeUntilStopped(*options);
            }};
}

}  // namespace qel
