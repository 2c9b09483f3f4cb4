#pragma once

#include <gsl/span>

namespace qel {

/// View of bytes that somebody else owns: a length and a pointer. Forming one with an impossible
/// length ends the process.
using ByteSpan = gsl::span<unsigned char>;

}  // namespace qel
