#include "Report.h"

#include <fmt/format.h>

#include <array>
#include <nlohmann/json.hpp>
#include <numeric>

#include "Transports.h"

namespace qel {
namespace {

using Json = nlohmann::ordered_json;

struct NamedFigure {
    const char* name;
    double (*value)(const TrialResult&);
};

double CpuOf(const TrialResult& round) {
    return round.Cpu();
}

double Latency50Of(const TrialResult& round) {
    return round.latency50;
}

constexpr std::array kFigures{
    NamedFigure{"framesPerSecond", [](const TrialResult& r) { return r.framesPerSecond; }},
    NamedFigure{"writerCopiesPerFrame", [](const TrialResult& r) { return r.writerCopies; }},
    NamedFigure{"readerCopiesPerFrame", [](const TrialResult& r) { return r.readerCopies; }},
    NamedFigure{"writerCpuMillisecondsPerFrame", [](const TrialResult& r) { return r.writerCpu; }},
    NamedFigure{"readerCpuMillisecondsPerFrame", [](const TrialResult& r) { return r.readerCpu; }},
    NamedFigure{"latencyMicrosecondsP50", Latency50Of},
    NamedFigure{"latencyMicrosecondsP95", [](const TrialResult& r) { return r.latency95; }},
    NamedFigure{"latencyMicrosecondsP99", [](const TrialResult& r) { return r.latency99; }},
    NamedFigure{"writerIdleCpuPercent", [](const TrialResult& r) { return r.writerIdleCpu; }},
    NamedFigure{"readerIdleCpuPercent", [](const TrialResult& r) { return r.readerIdleCpu; }},
};

std::uint64_t Sum(const Row& row, std::uint64_t TrialResult::*count) {
    return std::accumulate(
        row.rounds.begin(), row.rounds.end(), std::uint64_t{0},
        [count](std::uint64_t sum, const TrialResult& round) { return sum + round.*count; });
}

const Row* ReferenceOf(const Comparison& comparison) {
    for (const Row& row : comparison.rows) {
        if (row.kind == TransportKinds().front()) {
            return &row;
        }
    }
    return nullptr;
}

std::string Text(const Spread& spread, int decimals) {
    return fmt::format("{:.{}f} ({:.{}f}–{:.{}f})", spread.median, decimals, spread.least, decimals,
                       spread.most, decimals);
}

std::string RatioText(const Row& row, const Row* reference, double (*figure)(const TrialResult&)) {
    const auto ratio = reference == nullptr ? std::nullopt : row.Against(*reference, figure);
    return ratio ? Text(*ratio, 2) : "–";
}

std::string IdleText(const Plan& plan, double writer, double reader) {
    return plan.idleSeconds > 0 ? fmt::format("{:.2f} / {:.2f}", writer, reader) : "–";
}

std::string LineOf(const Plan& plan, const Row& row, const Row* reference) {
    const auto median = [&row](double (*figure)(const TrialResult&)) {
        return row.Over(figure).median;
    };
    const auto spread = [&row](double (*figure)(const TrialResult&), int decimals) {
        return Text(row.Over(figure), decimals);
    };
    return fmt::format(
        "| {} | {} | {} | {:.1f} | {:.2g} + {:.2g} | {} | {} | {} | {} / {:.0f} / {:.0f} | {} | "
        "{} |\n",
        row.kind, Sum(row, &TrialResult::frames), Sum(row, &TrialResult::lost),
        median([](const TrialResult& r) { return r.framesPerSecond; }),
        median([](const TrialResult& r) { return r.writerCopies; }),
        median([](const TrialResult& r) { return r.readerCopies; }),
        spread([](const TrialResult& r) { return r.writerCpu; }, 3),
        spread([](const TrialResult& r) { return r.readerCpu; }, 3),
        RatioText(row, reference, CpuOf), spread(Latency50Of, 0),
        median([](const TrialResult& r) { return r.latency95; }),
        median([](const TrialResult& r) { return r.latency99; }),
        RatioText(row, reference, Latency50Of),
        IdleText(plan, median([](const TrialResult& r) { return r.writerIdleCpu; }),
                 median([](const TrialResult& r) { return r.readerIdleCpu; })));
}

std::string TitleOf(const Plan& plan) {
    return fmt::format(
        "{}: {} bytes a frame, {}, reader reads {}", plan.stream.name, plan.stream.FrameBytes(),
        plan.flatOut ? "as fast as it goes" : fmt::format("{} frames a second", plan.stream.rate),
        plan.readAll ? "every cache line" : "the first and the last cache line");
}

Json JsonOf(const Spread& spread) {
    return {{"median", spread.median}, {"least", spread.least}, {"most", spread.most}};
}

Json JsonOf(const Row& row, const Row* reference) {
    Json json{{"transport", row.kind},
              {"frames", Sum(row, &TrialResult::frames)},
              {"lost", Sum(row, &TrialResult::lost)},
              {"wrong", Sum(row, &TrialResult::wrong)}};
    for (const NamedFigure& figure : kFigures) {
        Json entry = JsonOf(row.Over(figure.value));
        for (const TrialResult& round : row.rounds) {
            entry["rounds"].push_back(figure.value(round));
        }
        json[figure.name] = entry;
    }
    const auto ratios = {NamedFigure{"cpuToReference", CpuOf},
                         NamedFigure{"latencyToReference", Latency50Of}};
    for (const NamedFigure& ratio : ratios) {
        if (const auto spread =
                reference == nullptr ? std::nullopt : row.Against(*reference, ratio.value)) {
            json[ratio.name] = JsonOf(*spread);
        }
    }
    return json;
}

}  // namespace

std::string MarkdownOf(const std::vector<Comparison>& comparisons, const Machine& machine) {
    std::string text =
        fmt::format("{} cores ({}), Linux {}, load {:.2f} before and {:.2f} after\n", machine.cores,
                    machine.processor, machine.kernel, machine.loadBefore, machine.loadAfter);
    for (const Comparison& comparison : comparisons) {
        text += fmt::format(
            "\n**{}**\n\n"
            "| transport | frames | lost | frames/s | copies/frame, writer + reader "
            "| writer CPU ms/frame | reader CPU ms/frame | CPU to qev "
            "| latency p50 / p95 / p99 µs | p50 to qev | idle CPU %, writer / reader |\n"
            "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n",
            TitleOf(comparison.plan));
        for (const Row& row : comparison.rows) {
            text += LineOf(comparison.plan, row, ReferenceOf(comparison));
        }
    }
    return text;
}

std::string JsonOf(const std::vector<Comparison>& comparisons, const Machine& machine) {
    Json json{{"machine",
               {{"cores", machine.cores},
                {"processor", machine.processor},
                {"kernel", machine.kernel},
                {"loadBefore", machine.loadBefore},
                {"loadAfter", machine.loadAfter}}}};
    for (const Comparison& comparison : comparisons) {
        const Plan& plan = comparison.plan;
        Json entry{{"stream", plan.stream.name},
                   {"frameBytes", plan.stream.FrameBytes()},
                   {"rate", plan.flatOut ? 0 : plan.stream.rate},
                   {"warmUpFrames", plan.warmUp},
                   {"ringBytes", plan.ringSize},
                   {"idleSeconds", plan.idleSeconds},
                   {"readsAll", plan.readAll}};
        for (const Row& row : comparison.rows) {
            entry["transports"].push_back(JsonOf(row, ReferenceOf(comparison)));
        }
        json["streams"].push_back(entry);
    }
    return json.dump(2) + "\n";
}

}  // namespace qel
