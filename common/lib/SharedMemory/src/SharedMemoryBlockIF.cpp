#include "SharedMemoryBlockReaderIF.h"
#include "SharedMemoryBlockWriterIF.h"

namespace qel {

SharedMemoryBlockReaderIF::~SharedMemoryBlockReaderIF() = default;
SharedMemoryBlockWriterIF::~SharedMemoryBlockWriterIF() = default;

}  // namespace qel
