/// Objects in which everything is forged, looked at from outside: rings, lock files, semaphores.
/// Each judgement ends, whatever somebody else makes of the object meanwhile; a ring that is put
/// right is sound afterwards, and one that is not is as it was.
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

#include "BlockCheck.h"
#include "CapturedLog.h"
#include "ControlBlock.h"
#include "Ends.h"
#include "ForgedBlock.h"
#include "Input.h"
#include "PacketHeader.h"
#include "RingCheck.h"
#include "RingInspection.h"
#include "RingRepair.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::fuzz {
namespace {

void WriteFile(const std::string& path, const Bytes& content) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
}

Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

template <typename Number>
void Put(Bytes& bytes, std::size_t at, Number number) {
    if (at + sizeof number <= bytes.size()) {
        std::memcpy(bytes.data() + at, &number, sizeof number);
    }
}

/// A ring's object, sound at first, then with any field or byte forged.
class ForgedRing {
public:
    explicit ForgedRing(Input& input) : size_(input.RingSize()) {
        bytes_.resize(sizeof(ControlBlock) + size_);
        MakeSound(input);
        for (unsigned count = input.Choice(6); count != 0; --count) {
            ForgeField(input);
        }
        if (input.Choice(8) == 0) {
            bytes_.resize(input.Amount(400));
        }
        WriteFile(name_.Path(), bytes_);
    }

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] std::string Path() const { return name_.Path(); }

    /// Somebody writes to the object, or cuts it.
    void Disturb(Input& input) {
        if (input.Choice(16) == 0) {
            (void)truncate(name_.Path().c_str(), input.Amount(400));
            return;
        }
        Bytes word = input.TakeBytes(8);
        std::fstream file(name_.Path(), std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(8 * input.Choice(20)));
        file.write(reinterpret_cast<const char*>(word.data()), 8);
    }

private:
    /// Records from somewhere on, shared out among the nodes.
    void MakeSound(Input& input) {
        const std::uint64_t start = size_ == 0 ? 0 : input.Amount(4096) % size_;
        std::array<std::uint64_t, kMaxNodes> index{};
        index.fill(start);
        std::uint64_t place = start;
        std::uint64_t used = 0;
        std::uint32_t count = 0;
        for (unsigned records = input.Choice(8); records != 0; --records) {
            const std::uint64_t room = std::min(size_ - place, size_ - used);
            if (room < kPacketHeaderSize) {
                break;
            }
            const std::uint64_t length =
                kPacketHeaderSize + input.Choice(200) % (room - kPacketHeaderSize + 1);
            Put(bytes_, sizeof(ControlBlock) + place, length - kPacketHeaderSize);
            Put(bytes_, sizeof(ControlBlock) + place + 8, input.Choice(2));
            place = (place + length) % size_;
            used += length;
            ++count;
            for (unsigned node = input.Choice(kMaxNodes); node >= 1; --node) {
                index.at(node) = place;
            }
        }
        for (std::size_t node = 2; node < kMaxNodes; ++node) {
            Put(bytes_, offsetof(ControlBlock, avail) + 8 * node,
                (index.at(node - 1) + size_ - index.at(node)) % std::max(size_, std::uint64_t{1}));
        }
        const std::uint64_t whole = std::max(size_, std::uint64_t{1});
        Put(bytes_, offsetof(ControlBlock, avail) + 8, (place + size_ - index[1]) % whole);
        Put(bytes_, offsetof(ControlBlock, avail), size_ - (place + size_ - index[4]) % whole);
        for (std::size_t node = 1; node < kMaxNodes; ++node) {
            Put(bytes_, offsetof(ControlBlock, rIdx) + 8 * node, index.at(node));
        }
        Put(bytes_, offsetof(ControlBlock, wIdx), place);
        const bool hasLimit = input.Flag();
        Put(bytes_, offsetof(ControlBlock, numPackets), hasLimit ? count : 0U);
        Put(bytes_, offsetof(ControlBlock, maxPackets), hasLimit ? 9U : 0U);
        Put(bytes_, offsetof(ControlBlock, initialised), std::uint8_t{1});
        Put(bytes_, offsetof(ControlBlock, halfSize), size_ / 2);
        Put(bytes_, offsetof(ControlBlock, quarterSize), size_ / 4);
    }

    void ForgeField(Input& input) {
        switch (input.Choice(4)) {
            case 0:
                Put(bytes_, input.Choice(sizeof(ControlBlock)), input.Take<std::uint8_t>());
                return;
            case 1:
                Put(bytes_, sizeof(ControlBlock) + input.Amount(4096), input.Edge(size_));
                return;
            default:
                Put(bytes_, 8 * std::size_t{input.Choice(19)}, input.Edge(size_));
        }
    }

    test::UniqueRingName name_;
    std::uint64_t size_;
    Bytes bytes_;
};

constexpr pid_t kNobody = 1 << 30;  // no process has this number

RingUsers UsersFrom(Input& input) {
    RingUsers users;
    users.hidden = input.Choice(4) == 0 ? 1 : 0;
    for (unsigned count = input.Choice(4); count != 0; --count) {
        ObjectUser user{
            input.Choice(8) == 0 ? getpid() : kNobody, 0, "node", 'S', true, {}, true, 0};
        if (input.Flag()) {
            user.descriptors.push_back({3, true, {input.Choice(kMaxNodes)}});
        }
        users.users.push_back(user);
    }
    return users;
}

void RequireWords(const Findings& findings) {
    for (const Finding& finding : findings) {
        Require(!finding.code.empty() && !finding.text.empty(), "a finding says what it is");
    }
}

void PutRightAndLook(const ForgedRing& forged, const RingFile& ring, Input& input) {
    RingRepairOptions repair;
    if (input.Flag()) {
        repair.nodes = 2 + input.Choice(4);
    }
    if (input.Flag()) {
        repair.maxFrames = input.Choice(12);
    }
    const Bytes before = ReadFile(forged.Path());
    const RingRepairPlan plan = PlanRepair(ring, repair);
    if (!plan.CanBeDone()) {
        Require(plan.Changes().empty() && !plan.instead.empty(), "a refusal changes nothing");
        Require(ReadFile(forged.Path()) == before, "a plan changes nothing");
        return;
    }
    if (ring.Size() == 0) {
        Require(plan.Changes().empty(), "there is nothing to change");
        return;
    }
    RingHold(ring, RingHold::IfInUse::Refuse).Apply(plan);
    RingCheckOptions options;
    options.judge.nodes = repair.nodes;
    options.judge.patience.pause = [](auto) {};
    options.maxFrames = repair.maxFrames;
    for (const Finding& finding : CheckRing(ring, {}, options)) {
        const bool mayStay =
            finding.code == "unused-fields" ||
            (ring.Fields().initialised == 0 && finding.severity != Severity::Fault);
        if (!mayStay) {
            Fail("put right, and still: " + finding.text);
        }
    }
    Require(PlanRepair(ring, repair).Changes().empty(), "there is nothing more to put right");
}

void Show(const RingFile& ring, std::optional<unsigned> nodes) {
    static const ProcessSurvey processes = ProcessSurvey::Take();
    const InspectOptions options{{3, 40}, nodes};
    const RingInspection shown = Inspect(ring, processes, options);
    Require(TextOf(ring.Name(), shown, options).find("numPackets") != std::string::npos,
            "all fields are shown");
    Require(JsonOf(ring.Name(), shown).front() == '{', "as JSON too");
}

void LookAtRing(Input& input) {
    ForgedRing forged(input);
    const auto ring = RingFile::Open(forged.Name());
    RingCheckOptions options;
    if (input.Flag()) {
        options.judge.nodes = 2 + input.Choice(4);
    }
    unsigned disturbances = input.Choice(4) == 0 ? input.Choice(8) : 0;
    options.judge.patience.pause = [&](auto) {
        if (disturbances > 0) {
            --disturbances;
            forged.Disturb(input);
        }
    };
    const RingUsers users = UsersFrom(input);
    const bool isDisturbed = disturbances > 0;
    RequireWords(CheckRing(*ring, users, options));
    Show(*ring, options.judge.nodes);
    if (input.Choice(64) == 0) {
        (void)HealthOf(*ring, {});  // takes its time
    }
    if (!isDisturbed) {
        PutRightAndLook(forged, *ring, input);
    }
}

void LookAtBlock(Input& input) {
    static const ProcessSurvey processes = ProcessSurvey::Take();
    ForgedBlock forged(input);
    for (unsigned count = 1 + input.Choice(3); count != 0; --count) {
        try {
            RequireWords(CheckBlock(forged.Name(), processes).findings);
        } catch (const std::runtime_error& reason) {
            Require(reason.what()[0] != '\0', "a refusal says why");  // there may be no lock file
        }
        forged.Forge(input);
    }
}

void LookAtSemaphore(Input& input) {
    static const ProcessSurvey processes = ProcessSurvey::Take();
    const test::UniqueSemaphoreName name;
    const std::string bare = name.Name().substr(1);
    WriteFile("/dev/shm/sem." + bare, input.TakeBytes(input.Choice(80)));
    RequireWords(CheckSemaphore(bare, processes).findings);
    (void)unlink(("/dev/shm/sem." + bare).c_str());
}

}  // namespace
}  // namespace qel::fuzz

int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    qel::fuzz::Input input(data, size);
    const qel::test::CapturedLog log;
    switch (input.Choice(8)) {
        case 0:
            qel::fuzz::LookAtBlock(input);
            break;
        case 1:
            qel::fuzz::LookAtSemaphore(input);
            break;
        default:
            qel::fuzz::LookAtRing(input);
    }
    return 0;
}
