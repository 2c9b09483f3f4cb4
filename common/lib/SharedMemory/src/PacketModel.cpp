// Text forms of the packet types.

#include <ostream>

#include "EventBoundary.h"
#include "PacketHeader.h"
#include "SharedPacketBufferIF.h"

namespace qel {

std::ostream& operator<<(std::ostream& stream, EventBoundary boundary) {
    if (!boundary.isSet) {
        return stream << "Not Set";
    }
    return stream << "ID: " << std::uint32_t{boundary.id}
                  << " StartTick: " << std::uint32_t{boundary.startTick}
                  << " StopTick: " << std::uint32_t{boundary.stopTick}
                  << " Timestamp: " << std::uint32_t{boundary.timestamp};
}

std::ostream& operator<<(std::ostream& stream, const PacketHeader& header) {
    return stream << "pts: " << std::int64_t{header.pts} << " key: " << int{header.key}
                  << " length: " << std::uint64_t{header.length}
                  << " ignoreData: " << int{header.ignoreData}
                  << " timestampSec: " << std::uint32_t{header.timestampSec}
                  << " timestampUsec: " << std::uint32_t{header.timestampUsec};
}

std::ostream& operator<<(std::ostream& stream, const SharedPacketBufferIF::CtlData& control) {
    return stream << "controlOnly: " << control.controlOnly << " dataOffset: " << control.dataOffset
                  << " dataSize: " << control.dataSize
                  << " ignoreDataFrame: " << control.ignoreDataFrame << '\n'
                  << " ptsDuration: " << control.ptsDuration << " startTick: " << control.startTick
                  << " stopTick: " << control.stopTick
                  << " frameIdx: " << unsigned{control.frameIdx} << '\n'
                  << " eventStartBoundary: " << control.eventStartBoundary << '\n'
                  << " eventStopBoundary: " << control.eventStopBoundary << '\n'
                  << " fileStart: " << control.fileStart << " fileStop: " << control.fileStop
                  << " stopPipelineId: " << unsigned{control.stopPipelineId}
                  << " timeStamp: " << control.timeStamp << '\n'
                  << " stopWritingToStorageBoundary: " << control.stopWritingToStorageBoundary
                  << " startWritingToStorageBoundary: " << control.startWritingToStorageBoundary;
}

}  // namespace qel
