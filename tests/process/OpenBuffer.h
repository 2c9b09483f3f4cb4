#pragma once

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "SharedMemLibFactory.h"
#include "SharedPacketBufferIF.h"

namespace qel::test {

/// A packet buffer as any client gets it.
inline std::unique_ptr<SharedPacketBufferIF> OpenBuffer(const SharedBufferIF::BufferInfo& info) {
    auto result = SharedMemLibFactory::Create()->GetSharedPacketBuffer(info);
    if (result.status != SMStatusCode::SUCCESS) {
        std::ostringstream text;
        text << "no buffer for " << info << ": " << result.status;
        throw std::runtime_error(text.str());
    }
    return std::move(result.buffer);
}

}  // namespace qel::test
