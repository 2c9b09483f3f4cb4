/// A segment in which everything is forged, under random operations of nodes that use it. Each
/// operation has a defined status or ends with a contract check, and stays in the data area.
#include <algorithm>
#include <memory>
#include <vector>

#include "CapturedLog.h"
#include "Ends.h"
#include "ForgedSegment.h"
#include "InPlaceWriter.h"
#include "Interference.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"

namespace qel::fuzz {
namespace {

constexpr unsigned kMostOperations = 100;

/// A node, as a ring and as a packet buffer.
struct Actor {
    unsigned node;
    unsigned receiver;
    std::unique_ptr<SharedBuffer> ring;
    std::unique_ptr<SharedPacketBufferIF> packets;
    std::vector<Packet> held;
};

bool IsAnyOf(SMStatusCode status, std::initializer_list<SMStatusCode> allowed) {
    return std::find(allowed.begin(), allowed.end(), status) != allowed.end();
}

void RequireReleased(SMStatusCode status) {
    Require(IsAnyOf(status, {SMStatusCode::SUCCESS, SMStatusCode::INVALID_PARAMETER}),
            "status of a release");
}

void RequireRead(SMStatusCode status) {
    Require(IsAnyOf(status, {SMStatusCode::SUCCESS, SMStatusCode::INVALID_PARAMETER,
                             SMStatusCode::DATA_NOT_AVAILABLE}),
            "status of a read");
}

/// Reserving and handing on what was reserved know these.
bool IsReserved(SMStatusCode status) {
    return IsAnyOf(status, {SMStatusCode::SUCCESS, SMStatusCode::INVALID_PARAMETER,
                            SMStatusCode::NOT_ENOUGH_SPACE});
}

class Run {
public:
    explicit Run(Input& input) : input_(input), segment_(input) {
        for (unsigned i = 1 + input.Choice(3); i != 0; --i) {
            Open();
        }
    }

    void Do();

private:
    void Open();
    void Operate(Actor& actor);
    void Write(Actor& actor);
    void WriteParts(Actor& actor, Bytes& header);
    void WriteRaw(Actor& actor);
    void Read(Actor& actor);
    void Count(Actor& actor);
    void WritePacket(Actor& actor);
    void WriteInPlace(Actor& actor);
    void ReadPacket(Actor& actor);
    void ReleasePacket(Actor& actor);
    void Look(Actor& actor);

    Bytes SomeBytes();
    void CheckWritten(const WriteResult& written);
    [[nodiscard]] bool Laps(std::uint64_t start, const std::vector<ByteSpan>& parts) const;

    Input& input_;
    const test::CapturedLog log_;
    ForgedSegment segment_;
    std::vector<Actor> actors_;
    bool isDisturbed_ = false;  ///< the operation may have seen an intrusion
    bool mayWriteData_ = false;
    bool isUnchanged_ = false;
};

void Run::Open() {
    const unsigned node = input_.Choice(kMaxNodes);
    const bool sink = input_.Flag() || node + 1 == kMaxNodes;
    const auto info =
        segment_.Info(static_cast<std::uint8_t>(node), sink, input_.Take<std::uint32_t>());
    actors_.push_back({node,
                       sink ? 0 : node + 1,
                       std::make_unique<SharedBuffer>(segment_.Kernel(), info),
                       std::make_unique<SharedPacketBuffer>(
                           std::make_unique<SharedBuffer>(segment_.Kernel(), info)),
                       {}});
}

void Run::Do() {
    Actor& actor = actors_.at(input_.Choice(static_cast<unsigned>(actors_.size())));
    isDisturbed_ = input_.Choice(4) == 0;
    mayWriteData_ = false;
    isUnchanged_ = false;
    segment_.Remember();
    if (isDisturbed_) {
        segment_.PlanIntrusion(input_);
    }
    Operate(actor);
    const bool hasIntruded = EndPlan();
    if (hasIntruded) {
        return;
    }
    if (isUnchanged_) {
        segment_.RequireUnchanged();
    }
    segment_.RequireDoneBy(actor.node, actor.receiver, mayWriteData_);
}

void Run::Operate(Actor& actor) {
    switch (input_.Choice(10)) {
        case 0:
            return Write(actor);
        case 1:
            return WriteRaw(actor);
        case 2:
        case 3:
            return Read(actor);
        case 4:
            return Count(actor);
        case 5:
            return WritePacket(actor);
        case 6:
            return ReadPacket(actor);
        case 7:
            return ReleasePacket(actor);
        case 8:
            return Look(actor);
        default:
            (void)EndPlan();
            segment_.Forge(input_);
            segment_.Remember();
    }
}

/// Bytes of some length, at the end of an allocation of their own.
Bytes Run::SomeBytes() {
    const std::uint64_t most = 3 * segment_.Size() + 64;
    const std::uint64_t length = input_.Choice(3) == 0 ? 26 : input_.Edge(segment_.Size());
    Bytes bytes(length <= most ? length : length % 64, 0x5A);
    bytes.shrink_to_fit();
    return bytes;
}

void Run::CheckWritten(const WriteResult& written) {
    Require(IsAnyOf(written.status, {SMStatusCode::SUCCESS, SMStatusCode::INVALID_PARAMETER,
                                     SMStatusCode::NOT_ENOUGH_SPACE, SMStatusCode::WILL_WRAP}),
            "status of a write");
    // A fill record tells the write index as it stands then, whoever has stored it.
    Require(isDisturbed_ || written.index <= segment_.Size(),
            "what a write tells lies in the ring");
    isUnchanged_ =
        IsAnyOf(written.status, {SMStatusCode::NOT_ENOUGH_SPACE, SMStatusCode::WILL_WRAP});
}

void Run::Write(Actor& actor) {
    mayWriteData_ = true;
    Bytes header = SomeBytes();
    switch (input_.Choice(3)) {
        case 0: {
            Bytes payload = SomeBytes();
            return CheckWritten(actor.ring->WriteHeaderPayload(header, payload, input_.Flag()));
        }
        case 1:
            return CheckWritten(
                actor.ring->WriteHeaderSkipPayload(header, input_.Edge(segment_.Size())));
        default:
            WriteParts(actor, header);
    }
}

/// True if a copy would go round the ring and over itself.
bool Run::Laps(std::uint64_t start, const std::vector<ByteSpan>& parts) const {
    const std::uint64_t size = segment_.Size();
    return std::any_of(parts.begin(), parts.end(), [&](const ByteSpan& part) {
        const std::uint64_t untilEnd = std::min<std::uint64_t>(part.size(), size - start);
        start = size == 0 ? 0 : (start + part.size()) % size;
        return part.size() - untilEnd > size;
    });
}

/// The size that is stated need not be that of the parts.
void Run::WriteParts(Actor& actor, Bytes& header) {
    std::vector<Bytes> owned(input_.Choice(4));
    std::vector<ByteSpan> parts;
    std::uint64_t sum = 0;
    for (Bytes& part : owned) {
        part = SomeBytes();
        parts.emplace_back(part);
        sum += part.size();
    }
    const std::uint64_t stated = input_.Flag() ? sum : input_.Edge(segment_.Size());
    const bool isCritical = input_.Flag();
    const std::uint64_t start = segment_.Control().wIdx.at(actor.node);
    std::vector<ByteSpan> all{header};
    all.insert(all.end(), parts.begin(), parts.end());

    WriteResult written{0, SMStatusCode::SUCCESS};
    const bool hasEnded = EndsByContract(
        [&] { written = actor.ring->WriteHeaderMultiData(header, parts, stated, isCritical); });
    const bool laps = start <= segment_.Size() && Laps(start, all);
    if (!isDisturbed_) {
        Require(!hasEnded || laps, "only a copy over itself ends the process");
        Require(hasEnded || written.status != SMStatusCode::SUCCESS || !laps,
                "a copy over itself ends the process");
    }
    if (!hasEnded) {
        CheckWritten(written);
    }
}

/// The copy itself, which trusts nobody with the index.
void Run::WriteRaw(Actor& actor) {
    mayWriteData_ = true;
    Bytes bytes = SomeBytes();
    const std::uint64_t index = input_.Edge(segment_.Size());
    const ByteSpan data(bytes);
    std::uint64_t end = 0;
    const bool hasEnded = EndsByContract([&] { end = actor.ring->WriteData(index, data); });
    Require(hasEnded == (index > segment_.Size() || Laps(index, {data})),
            "a copy that does not fit ends the process, and no other");
    Require(end <= segment_.Size(), "the end of a copy lies in the ring");
}

void Run::Read(Actor& actor) {
    const std::uint64_t number = input_.Edge(segment_.Size());
    switch (input_.Choice(4)) {
        case 0: {
            const ReadResult read = actor.ring->ReadData(number, input_.Edge(segment_.Size()));
            RequireRead(read.status);
            isUnchanged_ = true;
            return segment_.RequireWithin(read.data);
        }
        case 1: {
            const ReadResult read = actor.ring->ReadHeader(number);
            RequireRead(read.status);
            isUnchanged_ = true;
            return segment_.RequireWithin(read.data);
        }
        case 2: {
            const PayloadResult read = actor.ring->ReadPayload(number);
            RequireRead(read.status);
            Require(read.index <= segment_.Size(), "a payload's index lies in the ring");
            isUnchanged_ = read.status == SMStatusCode::DATA_NOT_AVAILABLE;
            return segment_.RequireWithin(read.data);
        }
        default:
            RequireReleased(actor.ring->ReleaseData(number, input_.Take<std::uint32_t>()));
    }
}

void Run::Count(Actor& actor) {
    const std::uint64_t size = input_.Edge(segment_.Size());
    // Every node's own counter, and indices behind the last one.
    const unsigned node = input_.Flag() ? actor.receiver : 5 + input_.Choice(251);
    const auto index = static_cast<std::uint8_t>(node);
    bool hasEnded = false;
    switch (input_.Choice(5)) {
        case 0:
            hasEnded = EndsByContract([&] { actor.ring->DecreaseAvailableSize(size, index); });
            return Require(hasEnded == (node >= kMaxNodes), "a node that there is not");
        case 1:
            hasEnded = EndsByContract([&] { actor.ring->IncreaseAvailableSize(size, index); });
            return Require(hasEnded == (node >= kMaxNodes), "a node that there is not");
        case 2:
            actor.ring->IncrementPackets();
            return;
        case 3:
            actor.ring->DecrementPackets(input_.Take<std::uint32_t>());
            return;
        default:
            actor.ring->Consume(size);
    }
}

void Run::WritePacket(Actor& actor) {
    mayWriteData_ = true;
    Bytes bytes = SomeBytes();
    Packet packet{{}, bytes};
    packet.header.length = input_.Take<std::uint64_t>();
    SMStatusCode status = SMStatusCode::SUCCESS;
    if (packet.header.length % 4 == 3) {  // what the corpus holds keeps its meaning
        return WriteInPlace(actor);
    }
    switch (input_.Choice(3)) {
        case 0:
            status = actor.packets->WritePacket(packet);
            break;
        case 1:
            status = actor.packets->WriteCriticalPacket(packet);
            break;
        default: {
            Bytes more = SomeBytes();
            status = actor.packets->WriteMultiDataPacket(packet, {bytes, more, ByteSpan()});
        }
    }
    Require(IsAnyOf(status, {SMStatusCode::SUCCESS, SMStatusCode::INVALID_PARAMETER,
                             SMStatusCode::NOT_ENOUGH_SPACE}),
            "status of a packet's write");
}

void Run::WriteInPlace(Actor& actor) {
    InPlaceWriter writer(*actor.packets);
    const std::uint64_t size = input_.Edge(segment_.Size());
    const ReadResult room = writer.Reserve(size);
    Require(IsReserved(room.status), "status of a reservation");
    segment_.RequireWithin(room.data);
    Require(writer.HasReservation() == (room.status == SMStatusCode::SUCCESS),
            "a reservation is held if there is room, and only then");
    if (room.status == SMStatusCode::SUCCESS) {
        Require(room.data.size() == size, "the room is as large as was asked for");
        std::fill(room.data.begin(), room.data.end(), static_cast<unsigned char>(0x5A));
        const SMStatusCode status = writer.Commit({}, input_.Flag() ? size : size / 2);
        // The index may have been forged since: then there is no such place.
        Require(status == SMStatusCode::WILL_WRAP || IsReserved(status), "status of a commit");
    }
}

void Run::ReadPacket(Actor& actor) {
    const ReadNextPacketResult read = actor.packets->ReadNextPacket();
    RequireRead(read.status);
    Require(read.index <= segment_.Size(), "a packet's index lies in the ring");
    segment_.RequireWithin(read.packet.data);
    if (read.status == SMStatusCode::SUCCESS) {
        actor.held.push_back(read.packet);
    }
}

void Run::ReleasePacket(Actor& actor) {
    static unsigned char byte = 0;
    if (input_.Flag()) {
        RequireReleased(actor.packets->ReleasePackets(actor.held));
        actor.held.clear();
    } else if (!actor.held.empty()) {
        RequireReleased(actor.packets->ReleasePacket(actor.held.back()));
        actor.held.pop_back();
    } else {
        // Nobody has read a packet of this size, nor could.
        const std::uint64_t size = std::min(input_.Edge(segment_.Size()), ~std::uint64_t{1});
        RequireReleased(actor.packets->ReleasePacket({{}, ByteSpan(&byte, size)}));
    }
}

void Run::Look(Actor& actor) {
    isUnchanged_ = true;
    actor.ring->Print(LogLevel::Warning);
    actor.packets->Print(LogLevel::Error);
    (void)actor.ring->GetCurrentCapacity();
    (void)actor.packets->GetCurrentCapacity();
    Bytes bytes = SomeBytes();
    (void)actor.ring->EnoughSpace(input_.Flag(), bytes, bytes);
    (void)actor.ring->MorePacketsAllowed(input_.Take<std::uint32_t>());
    const ReadResult read =
        actor.packets->ReadData(input_.Edge(segment_.Size()), input_.Edge(segment_.Size()));
    RequireRead(read.status);
    segment_.RequireWithin(read.data);
}

}  // namespace
}  // namespace qel::fuzz

int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    qel::fuzz::Input input(data, size);
    qel::fuzz::Run run(input);
    for (unsigned i = 0; i < qel::fuzz::kMostOperations && !input.IsUsedUp(); ++i) {
        run.Do();
    }
    return 0;
}
