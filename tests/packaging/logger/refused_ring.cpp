// A client whose ring the system refuses, which the library logs: an object's name cannot hold a
// slash.

#include "SharedMemLibFactory.h"

int main() {
    const auto result =
        qel::SharedMemLibFactory::Create()->GetSharedPacketBuffer({"no/such", 1000, 0, true, 0});
    return result.status == qel::SMStatusCode::SHARED_MEMORY_FAILURE ? 0 : 1;
}
