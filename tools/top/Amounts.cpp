#include "Amounts.h"

#include <fmt/format.h>

#include <array>

namespace qel {
namespace {

const char* Worth(const RingFigures& figures, bool isExact) {
    return figures.isTooFast ? ">" : isExact ? "" : "~";
}

}  // namespace

std::string ShortBytes(double bytes) {
    constexpr double kStep = 1024;
    constexpr double kMost = 999.5;  // would be rounded to four digits
    constexpr double kPlaces = 99.95;
    if (bytes < kMost) {
        return fmt::format("{:.0f}B", bytes);
    }
    constexpr std::array kUnits{'K', 'M', 'G', 'T', 'P', 'E'};
    const auto* unit = kUnits.begin();
    for (bytes /= kStep; bytes >= kMost && unit + 1 != kUnits.end(); ++unit) {
        bytes /= kStep;
    }
    return fmt::format(bytes < kPlaces ? "{:.1f}{}" : "{:.0f}{}", bytes, *unit);
}

std::string ShortMegabytes(double bytesPerSecond) {
    constexpr double kMega = 1e6;
    constexpr double kPlaces = 9999.95;
    constexpr double kLittle = 0.1;
    const double megabytes = bytesPerSecond / kMega;
    if (megabytes > 0 && megabytes < kLittle) {
        return fmt::format("{:.3f}", megabytes);
    }
    return fmt::format(megabytes < kPlaces ? "{:.1f}" : "{:.0f}", megabytes);
}

std::string ShortRate(double perSecond) {
    constexpr double kPlaces = 99.95;
    constexpr double kMost = 999'999.5;
    constexpr double kMega = 1e6;
    if (perSecond >= kMost) {
        return fmt::format("{:.1f}M", perSecond / kMega);
    }
    return fmt::format(perSecond != 0 && perSecond < kPlaces ? "{:.1f}" : "{:.0f}", perSecond);
}

std::string ShortTime(std::optional<double> seconds) {
    if (!seconds) {
        return "-";
    }
    constexpr double kStep = 1000;
    constexpr double kMost = 999.5;
    constexpr double kPlaces = 99.95;
    constexpr double kMicro = 1e6;
    constexpr std::array kUnits{"us", "ms", "s"};
    double time = *seconds * kMicro;
    const auto* unit = kUnits.begin();
    for (; time >= kMost && unit + 1 != kUnits.end(); ++unit) {
        time /= kStep;
    }
    return fmt::format(unit != kUnits.begin() && time < kPlaces ? "{:.1f} {}" : "{:.0f} {}", time,
                       *unit);
}

std::string ShortShare(double share) {
    constexpr double kPercent = 100;
    constexpr double kLeast = 0.005;
    if (share > 0 && share < kLeast) {
        return "<1 %";
    }
    return fmt::format("{:.0f} %", share * kPercent);
}

const char* ByteWorth(const RingFigures& figures) {
    return Worth(figures, figures.bytesAreExact);
}

const char* PacketWorth(const RingFigures& figures) {
    return Worth(figures, figures.packetsAreExact);
}

}  // namespace qel
