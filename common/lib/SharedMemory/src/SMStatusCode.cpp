#include "SMStatusCode.h"

#include <ostream>

namespace qel {
namespace {

const char* NameOf(SMStatusCode status) {
    switch (status) {
        case SMStatusCode::SUCCESS:
            return "SUCCESS";
        case SMStatusCode::INVALID_PARAMETER:
            return "INVALID_PARAMETER";
        case SMStatusCode::SHARED_MEMORY_FAILURE:
            return "SHARED_MEMORY_FAILURE";
        case SMStatusCode::NOT_ENOUGH_SPACE:
            return "NOT_ENOUGH_SPACE";
        case SMStatusCode::DATA_NOT_AVAILABLE:
            return "DATA_NOT_AVAILABLE";
        case SMStatusCode::WILL_WRAP:
            return "WILL_WRAP";
    }
    return "Unknown Status";
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, SMStatusCode status) {
    return stream << NameOf(status);
}

}  // namespace qel
