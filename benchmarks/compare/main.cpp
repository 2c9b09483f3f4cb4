#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "Measure.h"

namespace qel::bench {
namespace {

struct Options {
    std::string transport;
    Cell cell;
    Plan plan;
    std::int64_t patience = 60;
    bool notPopulated = false;
};

const Kind& KindNamed(const std::vector<Kind>& kinds, const std::string& name) {
    const auto found = std::find_if(kinds.begin(), kinds.end(),
                                    [&name](const Kind& kind) { return kind.name == name; });
    if (found == kinds.end()) {
        throw std::invalid_argument("there is no transport \"" + name + "\"");
    }
    return *found;
}

void AddOptions(CLI::App& app, Options& options) {
    app.add_option("--transport", options.transport, "One of those that \"list\" tells")
        ->required();
    app.add_option("--size", options.cell.size, "Bytes of a message");
    app.add_option("--ring", options.cell.ring, "Bytes of the shared memory");
    app.add_flag("--read-all", options.cell.readAll, "The reader reads a byte of each cache line");
    app.add_flag("--not-populated", options.notPopulated,
                 "Leave the ring's pages to the first lap");
    app.add_option("--seconds", options.plan.seconds, "How long to measure, about");
    app.add_option("--messages", options.plan.messages, "How many messages, in place of --seconds");
    app.add_option("--rate", options.plan.rate, "Messages per second; 0: as fast as they go");
    app.add_option("--marks", options.plan.marks, "Tell the time of these messages")
        ->delimiter(',');
    app.add_option("--patience", options.patience, "Seconds after which it gives up");
}

using Measurement = nlohmann::json (*)(const Kind&, const Cell&, const Plan&);

nlohmann::json Measure(Measurement measurement, Options& options) {
    options.cell.populate = !options.notPopulated;
    options.plan.patience = std::chrono::seconds(options.patience);
    const std::vector<Kind> kinds = Kinds();
    const Kind& kind = KindNamed(kinds, options.transport);
    if (const auto refusal = kind.refusal(options.cell)) {
        return {{"refused", *refusal}};
    }
    return measurement(kind, options.cell, options.plan);
}

int Main(int argc, char** argv) {
    Options options;
    CLI::App app("Measures one transport from process to process, and tells the figures as JSON.");
    app.require_subcommand(1);
    auto* list = app.add_subcommand("list", "Tells the transports");
    auto* stream = app.add_subcommand("stream", "One writer, one reader");
    auto* roundTrip = app.add_subcommand("roundtrip", "A message there, the same message back");
    AddOptions(*stream, options);
    AddOptions(*roundTrip, options);
    CLI11_PARSE(app, argc, argv);
    try {
        if (list->parsed()) {
            for (const Kind& kind : Kinds()) {
                std::cout << kind.name << '\n';
            }
        } else {
            std::cout << Measure(stream->parsed() ? MeasureStream : MeasureRoundTrip, options)
                      << '\n';
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}

}  // namespace
}  // namespace qel::bench

int main(int argc, char** argv) {
    return qel::bench::Main(argc, argv);
}
