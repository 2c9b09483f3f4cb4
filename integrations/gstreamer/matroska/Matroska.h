#pragma once

#include <string>

namespace qel {

/// Reads a recording from standard input and writes it to standard output as a Matroska file.
/// @param caps          what the payloads are, as GStreamer writes it
/// @param arrivalTimes  the time stamps are the times of arrival, not the packets' own
/// @throws std::runtime_error
void Mux(const std::string& caps, bool arrivalTimes);

/// @throws std::runtime_error when no stream has these caps
void RequireStreamCaps(const std::string& caps);

/// Reads the Matroska file `path` and writes its first track to standard output as a recording.
/// @throws std::runtime_error
void Demux(const std::string& path);

}  // namespace qel
