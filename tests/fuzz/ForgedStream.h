#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "ControlRecord.h"
#include "Input.h"
#include "RawWriter.h"
#include "SharedMemoryBlockWriter.h"
#include "SharedPacketBufferIF.h"
#include "StreamName.h"
#include "StreamNames.h"

namespace qel::fuzz {

/// The writing end of a stream, by somebody who knows its objects and puts anything into them.
class ForgedStream {
public:
    explicit ForgedStream(Input& input);

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] std::uint64_t Size() const { return size_; }

    /// Puts something into the ring, the control ring or the block of caps.
    void Write(Input& input);

private:
    /// A packet whose header and record agree, unless the input says otherwise.
    void WritePacket(Input& input);
    void WriteEndOfStream(Input& input);
    /// A packet whose header states another length than that of its payload.
    void WriteLie(Input& input);
    void WriteEvent(Input& input);
    void WriteGarbage(Input& input);
    void WriteCaps(Input& input);
    void ForgeCounter(Input& input);
    void Tell(ControlHead head, const std::string& text);

    test::UniqueStreamName name_;
    StreamNames names_{name_.Name()};
    std::uint64_t size_;
    std::unique_ptr<SharedPacketBufferIF> ring_;
    std::unique_ptr<SharedPacketBufferIF> control_;
    std::unique_ptr<RawWriter> rawRing_;
    std::unique_ptr<RawWriter> rawControl_;
    std::unique_ptr<SharedMemoryBlockWriter> caps_;
};

}  // namespace qel::fuzz
