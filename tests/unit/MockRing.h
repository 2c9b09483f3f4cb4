#pragma once

#include <gmock/gmock.h>

#include <vector>

#include "SharedBufferIF.h"

namespace qel::test {

/// A ring that does what a test tells it.
class MockRing : public SharedBufferIF {
public:
    MOCK_METHOD(SMStatusCode, DoReleaseData, (std::uint64_t size, std::uint32_t count), (override));
    MOCK_METHOD(WriteResult, DoWriteHeaderPayload,
                (const ByteSpan& header, const ByteSpan& payload, bool isCritical), (override));
    MOCK_METHOD(WriteResult, DoWriteHeaderMultiData,
                (const ByteSpan& header, const std::vector<ByteSpan>& data, std::uint64_t dataSize,
                 bool isCritical),
                (override));
    MOCK_METHOD(WriteResult, DoWriteHeaderSkipPayload,
                (const ByteSpan& header, std::uint64_t skipSize), (override));
    MOCK_METHOD(ReadResult, DoReadData, (std::uint64_t index, std::uint64_t length), (override));
    MOCK_METHOD(ReadResult, DoReadHeader, (std::uint64_t length), (override));
    MOCK_METHOD(PayloadResult, DoReadPayload, (std::uint64_t length), (override));
    MOCK_METHOD(void, DoPrint, (LogLevel level), (override));
    MOCK_METHOD(Capacity, DoGetCurrentCapacity, (), (override));
};

}  // namespace qel::test
