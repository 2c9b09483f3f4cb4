#include "SharedMemLib.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "SharedBuffer.h"
#include "SharedMemLibFactory.h"
#include "SharedPacketBuffer.h"
#include "StandardOutput.h"
#include "SysFactory.h"

namespace qel {
namespace {

SharedPacketBufferResult Refuse(const std::exception& reason, SMStatusCode status) {
    // One wording for both statuses; only the status tells them apart.
    WriteOut("Trouble creating shared memory invalid parameter: " + std::string(reason.what()) +
             "\n");
    return {nullptr, status};
}

}  // namespace

std::unique_ptr<SharedMemLibIF> SharedMemLibFactory::Create() {
    return std::make_unique<SharedMemLib>();
}

SharedMemLib::SharedMemLib() : sys_(SysFactory::Create("")) {}

SharedPacketBufferResult SharedMemLib::DoGetSharedPacketBuffer(
    const SharedBufferIF::BufferInfo& info) {
    std::unique_ptr<SharedBufferIF> ring;
    try {
        ring = std::make_unique<SharedBuffer>(sys_, info);
    } catch (const std::invalid_argument& reason) {
        return Refuse(reason, SMStatusCode::INVALID_PARAMETER);
    } catch (const std::exception& reason) {
        return Refuse(reason, SMStatusCode::SHARED_MEMORY_FAILURE);
    }
    return {std::make_unique<SharedPacketBuffer>(std::move(ring)), SMStatusCode::SUCCESS};
}

}  // namespace qel
