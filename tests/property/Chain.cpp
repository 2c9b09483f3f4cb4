#include "Chain.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace qel::test {

using reference::Bytes;

namespace {

constexpr char kName[] = "twin";

std::uint64_t RingSize(unsigned choice, unsigned amount) {
    constexpr std::array<std::uint64_t, 14> kEdges{0,  1,  25,  26,  27,  51,  52,
                                                   53, 78, 130, 155, 156, 157, 182};
    return choice < kEdges.size() ? kEdges.at(choice) : 200 + amount;
}

}  // namespace

SharedBufferIF::BufferInfo Chain::Info(unsigned node) const {
    return {kName, size, static_cast<std::uint8_t>(node), node + 1 == nodes, maxFrames};
}

std::ostream& operator<<(std::ostream& stream, const Chain& chain) {
    return stream << "{size " << chain.size << ", nodes " << chain.nodes << ", maxFrames "
                  << chain.maxFrames << (chain.orderly ? ", orderly}" : "}");
}

std::uint32_t FrameLimit(unsigned choice) {
    constexpr std::array<std::uint32_t, 10> kLimits{0, 0, 0, 1,           2,
                                                    3, 5, 9, 0xFFFFFFFFU, 0xFFFFFFFEU};
    return kLimits.at(choice % kLimits.size());
}

rc::Gen<Chain> ArbitraryChain() {
    const auto any = [](unsigned limit) {
        return rc::gen::resize(rc::kNominalSize, rc::gen::inRange(0U, limit));
    };
    return rc::gen::apply(
        [](unsigned edge, unsigned large, unsigned nodes, unsigned limit, unsigned orderly) {
            return Chain{RingSize(edge, large), 1 + nodes, FrameLimit(limit), orderly != 0};
        },
        // Three of four rings are large enough for a few records.
        any(56), rc::gen::oneOf(any(200), any(3801)), any(5), any(10), any(2));
}

TwinSegment::TwinSegment(const Chain& chain) : expected_(chain.size) {}

unsigned char* TwinSegment::Memory() const {
    return kernel_->MemoryOf(std::string("/") + kName + ".shm");
}

void TwinSegment::Compare() const {
    const auto image = expected_.Image();
    const unsigned char* const memory = Memory();
    for (std::size_t i = 0; i < image.size(); ++i) {
        if (memory[i] != image.at(i)) {
            RC_FAIL("control block differs at byte " + std::to_string(i) + ": " +
                    std::to_string(memory[i]) + " instead of " + std::to_string(image.at(i)));
        }
    }
    const unsigned char* const area = memory + reference::kControlSize;
    const auto differs = std::mismatch(expected_.data.begin(), expected_.data.end(), area).first;
    if (differs != expected_.data.end()) {
        RC_FAIL("data area differs at offset " +
                std::to_string(std::distance(expected_.data.begin(), differs)));
    }
}

void TwinSegment::CompareView(const ByteSpan& actual, const reference::Seen& expected) const {
    RC_ASSERT(std::uint64_t{actual.size()} == expected.length);
    if (expected.length == 0) {
        return;
    }
    const unsigned char* const area = Memory() + reference::kControlSize;
    RC_ASSERT(static_cast<std::uint64_t>(actual.data() - area) == expected.offset);
    RC_ASSERT(std::memcmp(actual.data(), &expected_.data.at(expected.offset), expected.length) ==
              0);
}

void TwinSegment::CompareDump(const std::string& expected) {
    RC_ASSERT(log_.Records().size() == 1U);
    RC_ASSERT(log_.Records().front().text == expected);
    RC_ASSERT(log_.Records().front().operation == "DoPrint");
    log_.Forget();
}

void TwinSegment::CompareSilence() const {
    RC_ASSERT(log_.Records().empty());
}

void TwinSegment::Forge(std::size_t offset, std::size_t width, std::uint64_t value) {
    std::memcpy(Memory() + offset, &value, width);
}

Bytes TwinSegment::FreshBytes(std::uint64_t count) {
    Bytes bytes(count);
    for (auto& byte : bytes) {
        pattern_ = pattern_ * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(pattern_ >> 24U);
    }
    return bytes;
}

void CompareStatus(SMStatusCode actual, reference::Status expected) {
    RC_ASSERT(static_cast<int>(actual) == static_cast<int>(expected));
}

ByteSpan SpanOf(Bytes& bytes) {
    return {bytes.data(), bytes.size()};
}

std::vector<ByteSpan> SpansOf(std::vector<Bytes>& parts) {
    std::vector<ByteSpan> spans;
    spans.reserve(parts.size());
    for (auto& part : parts) {
        spans.push_back(SpanOf(part));
    }
    return spans;
}

std::vector<Bytes> Cut(const Bytes& bytes, unsigned choice) {
    std::vector<Bytes> parts;
    auto from = bytes.begin();
    for (unsigned i = 0; i < choice % 5; ++i) {
        const auto left = static_cast<unsigned>(bytes.end() - from);
        const unsigned taken = i % 2 == 1 ? 0 : choice % (left + 1);
        parts.emplace_back(from, from + taken);
        from += taken;
    }
    if (from != bytes.end()) {
        parts.emplace_back(from, bytes.end());
    }
    return parts;
}

void ExpectAllMet(const reference::EventCounts& events,
                  const std::vector<std::string>& situations) {
    std::cout << "Situations met:\n" << events;
    const char* const parameters = std::getenv("RC_PARAMS");
    if (parameters != nullptr && std::strstr(parameters, "reproduce=") != nullptr) {
        return;  // one case, found earlier, is run again
    }
    for (const auto& situation : situations) {
        EXPECT_GE(events.Of(situation), 10U) << situation;
    }
}

}  // namespace qel::test
