#pragma once

#include <optional>
#include <string>

#include "RingMeter.h"

namespace qel {

/// Amounts for columns: short, and of a width that hardly changes.

/// "712B", "64.0K", "512M": at most 5 cells.
[[nodiscard]] std::string ShortBytes(double bytes);

/// Megabytes a second, of 1,000,000 bytes: "0.0", "0.005", "12.5", "1204.2".
[[nodiscard]] std::string ShortMegabytes(double bytesPerSecond);

/// A number a second: "0", "0.4", "25.0", "1525", "1.2M".
[[nodiscard]] std::string ShortRate(double perSecond);

/// "12 us", "3.4 ms", "1.2 s"; "-" for nothing.
[[nodiscard]] std::string ShortTime(std::optional<double> seconds);

/// "12 %", "<1 %": from 0 to 1.
[[nodiscard]] std::string ShortShare(double share);

/// What stands before a number to tell what it is worth: "" of an exact one, "~" of an estimate,
/// ">" of one that is too low.
[[nodiscard]] const char* ByteWorth(const RingFigures& figures);
[[nodiscard]] const char* PacketWorth(const RingFigures& figures);

}  // namespace qel
