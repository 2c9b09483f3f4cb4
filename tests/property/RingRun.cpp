#include "RingRun.h"

#include <algorithm>
#include <array>

namespace qel::test {

using reference::Bytes;

namespace {

constexpr std::uint64_t kHuge = ~std::uint64_t{0};

std::uint64_t HeaderLength(unsigned choice) {
    constexpr std::array<std::uint64_t, 8> kLengths{26, 26, 26, 26, 13, 40, 1, 0};
    return kLengths.at(choice);
}

/// `value` - `less`, not below 0.
std::uint64_t Minus(std::uint64_t value, std::uint64_t less) {
    return value < less ? 0 : value - less;
}

}  // namespace

void RingRun::Do(const RingCommand& command) {
    using Kind = RingCommand::Kind;
    const unsigned node = command.node % chain_.nodes;
    switch (command.kind) {
        case Kind::WritePayload:
            WritePayload(command);
            break;
        case Kind::WriteMultiData:
            WriteMultiData(command);
            break;
        case Kind::WriteSkip:
            WriteSkip(command);
            break;
        case Kind::FillToEnd:
            FillToEnd(Writer(command));
            break;
        case Kind::ReadHeader:
            ReadHeader(node,
                       command.shape == 0 ? Available(node) + 1 : HeaderLength(command.header));
            break;
        case Kind::ReadPayload:
            if (!chain_.orderly) {
                ReadPayload(node, TakenLength(command, node));
            }
            break;
        case Kind::ReadData:
            ReadData(command);
            break;
        case Kind::PassOn:
            Pass(node, HeaderLength(command.header),
                 std::min<std::uint64_t>(Available(node), command.amount));
            break;
        case Kind::PassAllOn:
            for (unsigned each = 1; each < chain_.nodes; ++each) {
                Pass(each, HeaderLength(command.header), Available(each));
            }
            break;
        case Kind::Release:
            Release(command);
            break;
        case Kind::Print:
            Print(node);
            break;
        case Kind::PrintDisabled:
            pairs_.at(node).actual->Print(LogLevel::Debug);
            break;
        case Kind::Capacity: {
            const Capacity capacity = pairs_.at(node).actual->GetCurrentCapacity();
            RC_ASSERT(capacity.shmName == chain_.Info(node).shmName);
            RC_ASSERT(capacity.maxPackets == twin_.Expected().maxPackets);
            RC_ASSERT(capacity.numPackets == twin_.Expected().numPackets);
            break;
        }
        case Kind::Reopen:
            pairs_.at(node) = {};
            Open(node, FrameLimit(command.amount));
            break;
        case Kind::OpenLarger:
            OpenLarger(command);
            break;
        case Kind::Forge:
            Forge(command);
            break;
    }
    twin_.CompareSilence();
    twin_.Compare();
}

void RingRun::PrintAll() {
    for (unsigned node = 0; node < chain_.nodes; ++node) {
        Print(node);
    }
    twin_.Compare();
}

void RingRun::Open(unsigned node, std::uint32_t maxFrames) {
    auto info = chain_.Info(node);
    info.maxFrames = maxFrames;
    auto& pair = pairs_.at(node);
    pair.actual = std::make_unique<SharedBuffer>(twin_.Kernel(), info);
    pair.expected = std::make_unique<reference::Node>(twin_.Expected(), events_, info.shmName, node,
                                                      info.sink, maxFrames);
}

void RingRun::OpenLarger(const RingCommand& command) {
    auto info = chain_.Info(command.node % chain_.nodes);
    info.shmSize += command.amount;
    info.maxFrames = FrameLimit(command.amount);
    const SharedBuffer other(twin_.Kernel(), info);
    twin_.Expected().Open(info.maxFrames);
    events_.Note("second opener of another size");
}

std::uint64_t RingRun::PayloadLength(const RingCommand& command, unsigned node,
                                     std::uint64_t headerLength) {
    const std::uint64_t toEnd = Minus(ToEnd(node), headerLength);
    const std::uint64_t reserve = command.critical ? 0 : 5 * headerLength;
    const std::uint64_t fits = Minus(Available(node), headerLength + reserve);
    switch (command.shape) {
        case 0:
            return toEnd;
        case 1:
            return Minus(toEnd, 1 + command.amount % std::max<std::uint64_t>(headerLength, 1));
        case 2:
            return Minus(toEnd, headerLength);
        case 3:
            return fits;
        case 4:
            return fits + 1;
        case 5:
            return toEnd + 1 + command.amount % 32;
        case 6:
            return command.amount % (chain_.size + 1);
        case 7:
            return command.amount % (2 * chain_.size + 32);
        case 8:
            return 0;
        default:
            return command.amount % 64;
    }
}

void RingRun::WritePayload(const RingCommand& command) {
    const unsigned node = Writer(command);
    Bytes header = twin_.FreshBytes(HeaderLength(command.header));
    Bytes payload = twin_.FreshBytes(PayloadLength(command, node, header.size()));
    const auto actual = pairs_.at(node).actual->WriteHeaderPayload(SpanOf(header), SpanOf(payload),
                                                                   command.critical);
    CompareWritten(actual,
                   pairs_.at(node).expected->WriteHeaderPayload(header, payload, command.critical));
}

void RingRun::WriteMultiData(const RingCommand& command) {
    const unsigned node = Writer(command);
    Bytes header = twin_.FreshBytes(HeaderLength(command.header));
    std::uint64_t dataSize = PayloadLength(command, node, header.size());
    std::uint64_t copied = dataSize;
    // The size that is accounted for need not be the one that is copied.
    if (!chain_.orderly && command.amount % 8 == 0) {
        copied = Minus(dataSize, command.amount % 48);
    } else if (!chain_.orderly && command.amount % 8 == 1 && dataSize < chain_.size) {
        copied = std::min(dataSize + command.amount % 48, chain_.size);
    }
    if (copied != dataSize) {
        events_.Note("size differs from the spans");
    }
    std::vector<Bytes> parts = Cut(twin_.FreshBytes(copied), command.amount);
    const auto actual = pairs_.at(node).actual->WriteHeaderMultiData(SpanOf(header), SpansOf(parts),
                                                                     dataSize, command.critical);
    CompareWritten(actual, pairs_.at(node).expected->WriteHeaderMultiData(header, parts, dataSize,
                                                                          command.critical));
}

void RingRun::WriteSkip(const RingCommand& command) {
    const unsigned node = Writer(command);
    const std::uint64_t headerLength = HeaderLength(command.header);
    switch (command.shape % 4) {
        case 0:
            Skip(node, headerLength, Minus(ToEnd(node), headerLength));
            break;
        case 1:
            Skip(node, headerLength, command.amount % 64);
            break;
        case 2:
            Skip(node, headerLength, Available(node) + command.amount % 8);
            break;
        default:
            Skip(node, headerLength, command.amount % (chain_.size + 1));
            break;
    }
}

void RingRun::FillToEnd(unsigned node) {
    const std::uint64_t headerLength = std::min<std::uint64_t>(ToEnd(node), 26);
    Skip(node, headerLength, ToEnd(node) - headerLength);
}

void RingRun::Skip(unsigned node, std::uint64_t headerLength, std::uint64_t skipSize) {
    auto& pair = pairs_.at(node);
    Bytes header = twin_.FreshBytes(headerLength);
    if (headerLength > chain_.size) {
        // No rule says which refusal it is, and in which words.
        RC_ASSERT(pair.actual->WriteHeaderSkipPayload(SpanOf(header), skipSize).status !=
                  SMStatusCode::SUCCESS);
        pair.actual->Print(LogLevel::Warning);
        (void)pair.expected->Print();
        twin_.ForgetDumps();
        events_.Note("header longer than the ring refused");
        return;
    }
    const auto actual = pair.actual->WriteHeaderSkipPayload(SpanOf(header), skipSize);
    CompareWritten(actual, pair.expected->WriteHeaderSkipPayload(header, skipSize));
}

void RingRun::CompareWritten(const WriteResult& actual, const reference::Written& expected) {
    CompareStatus(actual.status, expected.status);
    RC_ASSERT(actual.index == expected.index);
}

void RingRun::ReadHeader(unsigned node, std::uint64_t length) {
    const auto actual = pairs_.at(node).actual->ReadHeader(length);
    const auto expected = pairs_.at(node).expected->ReadHeader(length);
    CompareStatus(actual.status, expected.status);
    twin_.CompareView(actual.data, expected);
}

std::uint64_t RingRun::TakenLength(const RingCommand& command, unsigned node) {
    const std::uint64_t waiting = Minus(Available(node), pairs_.at(node).expected->Pending());
    switch (command.shape) {
        case 0:
        case 1:
            return waiting;
        case 2:
            return waiting + 1;
        case 3:
            return kHuge - command.amount % 64;
        case 4:
            return chain_.size + command.amount;
        case 5:
            return command.amount % (chain_.size + 1);
        default:
            return std::min<std::uint64_t>(waiting, command.amount % 64);
    }
}

void RingRun::ReadPayload(unsigned node, std::uint64_t length) {
    const auto actual = pairs_.at(node).actual->ReadPayload(length);
    const auto expected = pairs_.at(node).expected->ReadPayload(length);
    CompareStatus(actual.status, expected.view.status);
    twin_.CompareView(actual.data, expected.view);
    RC_ASSERT(actual.index == expected.index);
}

void RingRun::ReadData(const RingCommand& command) {
    const std::array<std::uint64_t, 6> indices{command.amount % (chain_.size + 1),
                                               chain_.size,
                                               chain_.size + 1,
                                               Minus(chain_.size, 4),
                                               0,
                                               kHuge};
    const std::array<std::uint64_t, 6> lengths{
        command.amount / 2 % (chain_.size + 1), chain_.size, chain_.size + 1, 16, 0, kHuge};
    const std::uint64_t index = indices.at(command.shape % indices.size());
    const std::uint64_t length = lengths.at(command.header % lengths.size());
    auto& pair = pairs_.at(command.node % chain_.nodes);
    const auto actual = pair.actual->ReadData(index, length);
    const auto expected = pair.expected->ReadData(index, length);
    CompareStatus(actual.status, expected.status);
    twin_.CompareView(actual.data, expected);
}

void RingRun::Pass(unsigned node, std::uint64_t headerLength, std::uint64_t all) {
    // Node 0 takes nothing: its bytes are free ones.
    if (node == 0 || headerLength > all) {
        return;
    }
    ReadHeader(node, headerLength);
    ReadPayload(node, all - headerLength);
    Release(node, all, 1);
}

void RingRun::Release(const RingCommand& command) {
    const unsigned node = command.node % chain_.nodes;
    if (chain_.orderly) {
        return;
    }
    const unsigned receiver = node + 1 == chain_.nodes ? 0 : node + 1;
    const std::uint64_t room = chain_.size - Available(receiver);
    const std::array<std::uint64_t, 7> sizes{
        0, 26, room, room + 1, command.amount % (chain_.size + 1), command.amount, kHuge};
    constexpr std::array<std::uint32_t, 8> kCounts{1, 1, 0, 2, 3, 7, 100, 0xFFFFFFFFU};
    Release(node, sizes.at(command.shape % sizes.size()), kCounts.at(command.header));
}

void RingRun::Release(unsigned node, std::uint64_t size, std::uint32_t count) {
    const auto actual = pairs_.at(node).actual->ReleaseData(size, count);
    CompareStatus(actual, pairs_.at(node).expected->ReleaseData(size, count));
}

void RingRun::Print(unsigned node) {
    pairs_.at(node).actual->Print(LogLevel::Warning);
    twin_.CompareDump(pairs_.at(node).expected->Print());
}

void RingRun::Forge(const RingCommand& command) {
    if (chain_.orderly) {
        return;
    }
    const std::size_t node = command.node % chain_.nodes;
    auto& segment = twin_.Expected();
    const std::uint64_t position = chain_.size == 0 ? 0 : command.amount % chain_.size;
    switch (command.shape % 4) {
        case 0:
            segment.avail.at(node) = command.amount % (chain_.size + 1);
            twin_.Forge(8 * node, 8, segment.avail.at(node));
            break;
        case 1:
            segment.wIdx.at(node) = position;
            twin_.Forge(40 + 8 * node, 8, position);
            break;
        case 2:
            segment.rIdx.at(node) = position;
            twin_.Forge(80 + 8 * node, 8, position);
            break;
        default: {
            // Up to two around the limit and around the end of the numbers.
            segment.numPackets =
                (command.amount % 2 == 0 ? segment.maxPackets : 0U) + command.header % 4 - 2U;
            twin_.Forge(120, 4, segment.numPackets);
            break;
        }
    }
    events_.Note("control block forged");
}

}  // namespace qel::test
