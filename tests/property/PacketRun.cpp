#include "PacketRun.h"

#include <algorithm>
#include <cstring>

#include "InPlaceWriter.h"

namespace qel::test {

using reference::Bytes;
using reference::Fields;

namespace {

PacketHeader HeaderOf(const Fields& fields) {
    return {fields.length, fields.ignoreData,   fields.pts,
            fields.key,    fields.timestampSec, fields.timestampUsec};
}

}  // namespace

void PacketRun::Do(const PacketCommand& command) {
    using Kind = PacketCommand::Kind;
    Pair& pair = nodes_.at(command.node % chain_.nodes);
    switch (command.kind) {
        case Kind::Write:
        case Kind::WriteMultiData:
            Write(command);
            break;
        case Kind::WriteInPlace:
            WriteInPlace(command);
            break;
        case Kind::ReadNext:
            // What node 0 would read is free space.
            if (!chain_.orderly || command.node % chain_.nodes != 0) {
                ReadNext(pair);
            }
            break;
        case Kind::Release:
            Release(pair);
            break;
        case Kind::ReleaseSeveral:
            ReleaseSeveral(pair, command.amount % 5);
            break;
        case Kind::ReleaseWrong:
            if (!chain_.orderly) {
                ReleaseWrong(pair, command.amount % (chain_.size + 64));
            }
            break;
        case Kind::PassAllOn:
            PassAllOn();
            break;
        case Kind::ReadData:
            ReadData(command);
            break;
        case Kind::Print:
            Print(pair);
            break;
        case Kind::Capacity:
            CompareCapacity(pair);
            break;
        case Kind::Reopen:
            pair.actual.reset();
            Open(command.node % chain_.nodes, FrameLimit(command.amount));
            break;
    }
    twin_.CompareSilence();
    twin_.Compare();
    if (chain_.orderly) {
        ExpectNoByteLost();
    }
}

void PacketRun::WriteRecord(Bytes header, Bytes payload, bool isCritical) {
    const auto actual =
        foreign_.actual->WriteHeaderPayload(SpanOf(header), SpanOf(payload), isCritical);
    const auto expected = foreign_.expected->WriteHeaderPayload(header, payload, isCritical);
    CompareStatus(actual.status, expected.status);
    RC_ASSERT(actual.index == expected.index);
    twin_.Compare();
}

void PacketRun::ExpectNoByteLost() {
    std::uint64_t bytes = 0;
    for (unsigned node = 0; node < chain_.nodes; ++node) {
        bytes += twin_.Expected().avail.at(node);
        for (const Packet& packet : nodes_.at(node).held) {
            bytes += kPacketHeaderSize + packet.data.size();
        }
    }
    RC_ASSERT(bytes == chain_.size);
}

void PacketRun::PrintAll() {
    foreign_.actual->Print(LogLevel::Critical);
    twin_.CompareDump(foreign_.expected->Print());
    for (auto& pair : nodes_) {
        Print(pair);
    }
    twin_.Compare();
}

void PacketRun::Open(unsigned node, std::uint32_t maxFrames) {
    auto info = chain_.Info(node);
    info.maxFrames = maxFrames;
    Pair& pair = nodes_.at(node);
    pair.actual =
        std::make_unique<SharedPacketBuffer>(std::make_unique<SharedBuffer>(twin_.Kernel(), info));
    pair.ring = std::make_unique<reference::Node>(twin_.Expected(), events_, info.shmName, node,
                                                  info.sink, maxFrames);
    pair.expected = std::make_unique<reference::PacketNode>(*pair.ring, events_);
}

std::uint64_t PacketRun::PayloadLength(const PacketCommand& command, unsigned node) {
    const auto& segment = twin_.Expected();
    const auto minus = [](std::uint64_t value, std::uint64_t less) {
        return value < less ? 0 : value - less;
    };
    const std::uint64_t toEnd = minus(chain_.size - segment.wIdx.at(node), 26);
    const std::uint64_t fits = minus(segment.avail.at(node), command.critical ? 26 : 156);
    switch (command.shape) {
        case 0:
            return toEnd;
        case 1:
            return minus(toEnd, 1 + command.amount % 26);
        case 2:
            return fits;
        case 3:
            return fits + 1;
        case 4:
            return std::min(toEnd + 1 + command.amount % 32, fits);
        case 5:
            return command.amount % (chain_.size + 64);
        case 6:
            return 0;
        default:
            return command.amount % (chain_.size / 8 + 1);
    }
}

void PacketRun::Write(const PacketCommand& command) {
    const unsigned node = chain_.orderly || command.node < 6 ? 0 : command.node % chain_.nodes;
    Pair& pair = nodes_.at(node);
    Bytes payload = twin_.FreshBytes(PayloadLength(command, node));
    const Bytes luck = twin_.FreshBytes(4);
    // The length that the caller states must not matter.
    const Fields fields{luck[0],       false,        -1000 * std::int64_t{luck[1]},
                        luck[2] < 128, luck[2] * 7U, luck[3]};
    Packet packet{HeaderOf(fields), SpanOf(payload)};
    if (command.kind == PacketCommand::Kind::WriteMultiData) {
        std::vector<Bytes> parts = Cut(payload, command.amount);
        CompareStatus(pair.actual->WriteMultiDataPacket(packet, SpansOf(parts)),
                      pair.expected->WriteMultiData(fields, parts));
    } else if (command.critical) {
        CompareStatus(pair.actual->WriteCriticalPacket(packet),
                      pair.expected->Write(fields, payload, true));
    } else {
        CompareStatus(pair.actual->WritePacket(packet),
                      pair.expected->Write(fields, payload, false));
    }
}

void PacketRun::WriteInPlace(const PacketCommand& command) {
    constexpr unsigned kProducer = 0;
    Pair& pair = nodes_.at(kProducer);
    InPlaceWriter writer(*pair.actual);
    const std::uint64_t size = PayloadLength(command, kProducer);
    const ReadResult room = writer.Reserve(size);
    const reference::Seen expected = pair.expected->Reserve(twin_.Expected(), kProducer, size);
    CompareStatus(room.status, expected.status);
    twin_.CompareView(room.data, expected);
    twin_.Compare();  // but for a filler and the head, nobody has seen it
    if (room.status != SMStatusCode::SUCCESS) {
        return;
    }
    CompareStatus(writer.Reserve(0).status, reference::Status::InvalidParameter);
    if (command.critical) {
        writer.GiveUp();
        events_.Note("reservation given up");
        return;
    }
    const Bytes payload =
        twin_.FreshBytes(command.node % 2 == 0 ? size : command.amount % (size + 1));
    std::copy(payload.begin(), payload.end(), room.data.begin());
    const Fields fields{size + 1, false, -5, true, command.amount, command.shape};
    events_.Note(payload.size() < size ? "less used than was reserved"
                                       : "all used that was reserved");
    CompareStatus(writer.Commit(HeaderOf(fields), payload.size()),
                  pair.expected->Commit(twin_.Expected(), expected.offset, fields, payload));
}

bool PacketRun::ReadNext(Pair& pair) {
    auto actual = pair.actual->ReadNextPacket();
    const auto expected = pair.expected->ReadNext(twin_.Expected());
    CompareStatus(actual.status, expected.data.status);
    RC_ASSERT(actual.index == expected.index);
    RC_ASSERT(std::memcmp(&actual.packet.header, expected.header.data(), kPacketHeaderSize) == 0);
    twin_.CompareView(actual.packet.data, expected.data);
    RC_ASSERT(!chain_.orderly || actual.status != SMStatusCode::INVALID_PARAMETER);
    if (actual.status == SMStatusCode::SUCCESS) {
        pair.held.push_back(actual.packet);
    }
    return actual.status == SMStatusCode::SUCCESS;
}

void PacketRun::Release(Pair& pair) {
    if (pair.held.empty()) {
        return;
    }
    const Packet packet = pair.held.front();
    pair.held.pop_front();
    CompareStatus(pair.actual->ReleasePacket(packet), pair.expected->Release(packet.data.size()));
}

void PacketRun::ReleaseSeveral(Pair& pair, std::size_t count) {
    std::vector<Packet> packets;
    std::vector<std::uint64_t> sizes;
    while (packets.size() < count && !pair.held.empty()) {
        packets.push_back(pair.held.front());
        sizes.push_back(pair.held.front().data.size());
        pair.held.pop_front();
    }
    events_.Note(packets.size() > 1 ? "several released at once" : "at most one released at once");
    CompareStatus(pair.actual->ReleasePackets(packets), pair.expected->ReleaseSeveral(sizes));
}

void PacketRun::ReleaseWrong(Pair& pair, std::uint64_t dataSize) {
    Bytes bytes(dataSize);
    CompareStatus(pair.actual->ReleasePacket(Packet{{}, SpanOf(bytes)}),
                  pair.expected->Release(dataSize));
    events_.Note("packet released that was never read");
}

void PacketRun::PassAllOn() {
    for (unsigned node = 1; node < chain_.nodes; ++node) {
        Pair& pair = nodes_.at(node);
        while (ReadNext(pair)) {
        }
        while (!pair.held.empty()) {
            Release(pair);
        }
    }
    const auto& segment = twin_.Expected();
    if (chain_.orderly && segment.avail[0] == segment.size) {
        events_.Note("ring at rest");
    }
}

void PacketRun::ReadData(const PacketCommand& command) {
    Pair& pair = nodes_.at(command.node % chain_.nodes);
    const std::uint64_t index = command.amount % (chain_.size + 2);
    const std::uint64_t length = command.shape * chain_.size / 10;
    const auto actual = pair.actual->ReadData(index, length);
    const auto expected = pair.ring->ReadData(index, length);
    CompareStatus(actual.status, expected.status);
    twin_.CompareView(actual.data, expected);
}

void PacketRun::CompareCapacity(Pair& pair) {
    const Capacity capacity = pair.actual->GetCurrentCapacity();
    RC_ASSERT(capacity.shmName == chain_.Info(0).shmName);
    RC_ASSERT(capacity.maxPackets == twin_.Expected().maxPackets);
    RC_ASSERT(capacity.numPackets == twin_.Expected().numPackets);
}

void PacketRun::Print(Pair& pair) {
    pair.actual->Print(LogLevel::Critical);
    twin_.CompareDump(pair.ring->Print());
}

}  // namespace qel::test
