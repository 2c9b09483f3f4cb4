#pragma once

#include "QevExport.h"

namespace qel::test {

/// An interface of a client's own, with a registry of its own.
class QEV_EXPORT Codec {
public:
    Codec() = default;
    virtual ~Codec() = default;
    Codec(const Codec&) = delete;
    Codec& operator=(const Codec&) = delete;

    [[nodiscard]] virtual int Rate() const = 0;
};

}  // namespace qel::test
