#include <gst/gst.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "Matroska.h"

namespace {

int Main(int argc, char** argv) {
    CLI::App app("Turns recordings of qev record into Matroska files and back; qev starts it.",
                 "qev-matroska");
    app.require_subcommand(1);
    std::string caps;
    std::string file;
    bool arrivalTimes = false;
    auto* const mux = app.add_subcommand("mux", "Recording on standard input, file on the output");
    mux->add_option("--caps", caps, "What the payloads are")->required();
    mux->add_flag("--arrival-times", arrivalTimes, "Time stamps are the times of arrival");
    auto* const check = app.add_subcommand("check", "Only whether there can be such a file");
    check->add_option("--caps", caps, "What the payloads are")->required();
    auto* const demux = app.add_subcommand("demux", "File to recording on standard output");
    demux->add_option("FILE", file, "Matroska file")->required();
    try {
        app.parse(argc, argv);
        gst_init(nullptr, nullptr);
        if (check->parsed()) {
            qel::RequireStreamCaps(caps);
        } else if (mux->parsed()) {
            qel::Mux(caps, arrivalTimes);
        } else {
            qel::Demux(file);
        }
    } catch (const CLI::ParseError& refusal) {
        return app.exit(refusal);
    } catch (const std::exception& failure) {
        (void)std::fprintf(stderr, "qev-matroska: %s\n", failure.what());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return Main(argc, argv);
}
