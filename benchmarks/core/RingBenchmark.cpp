// One thread writes, reads and releases packets: what the library costs beside its own rules, and
// what it copies beside a plain and a non-temporal copy.

#include <benchmark/benchmark.h>

#include <memory>
#include <new>
#include <vector>

#include "BareRing.h"
#include "RingBuffers.h"

namespace qel::bench {
namespace {

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;

void Tell(benchmark::State& state, std::uint64_t length) {
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * length));
}

/// @note arguments: bytes of a payload, of the ring
void Library(benchmark::State& state) {
    const auto length = static_cast<std::uint64_t>(state.range(0));
    const RingPair ring(static_cast<std::uint64_t>(state.range(1)));
    std::vector<unsigned char> payload(length, 7);
    Packet packet;
    packet.data = {payload.data(), payload.size()};
    while (state.KeepRunning()) {
        if (ring.writer->WritePacket(packet) != SMStatusCode::SUCCESS) {
            state.SkipWithError("no room");
            break;
        }
        for (bool isFiller = true; isFiller;) {
            const ReadNextPacketResult next = ring.reader->ReadNextPacket();
            isFiller = next.packet.header.ignoreData;
            benchmark::DoNotOptimize(next.packet.data.data());
            (void)ring.reader->ReleasePacket(next.packet);
        }
    }
    Tell(state, length);
}

void Bare(benchmark::State& state) {
    const auto length = static_cast<std::uint64_t>(state.range(0));
    const auto size = static_cast<std::uint64_t>(state.range(1));
    const SharedBytes bytes(size + sizeof(ControlBlock));
    auto& control = *new (bytes.Data()) ControlBlock();
    control.avail[0].store(size);
    BareRing ring(control, bytes.Data() + sizeof(ControlBlock), size);
    std::vector<unsigned char> payload(length, 7);
    while (state.KeepRunning()) {
        if (!ring.Write({}, payload.data(), length)) {
            state.SkipWithError("no room");
            break;
        }
        PacketHeader header;
        for (bool isFiller = true; isFiller;) {
            benchmark::DoNotOptimize(ring.Read(header));
            isFiller = header.ignoreData;
            ring.Release(header.length);
        }
    }
    Tell(state, length);
}

/// Copies of the payload alone, one behind the other round memory as large as the ring.
template <void (*Copy)(unsigned char*, const unsigned char*, std::size_t)>
void Limit(benchmark::State& state) {
    const auto length = static_cast<std::uint64_t>(state.range(0));
    const auto size = static_cast<std::uint64_t>(state.range(1));
    const SharedBytes bytes(size);
    std::vector<unsigned char> payload(length, 7);
    std::uint64_t index = 0;
    while (state.KeepRunning()) {
        Copy(bytes.Data() + index, payload.data(), length);
        benchmark::ClobberMemory();
        index =
            index + 2 * length + kPacketHeaderSize <= size ? index + length + kPacketHeaderSize : 0;
    }
    Tell(state, length);
}

void Arguments(benchmark::internal::Benchmark* benchmark) {
    for (const std::uint64_t ring : {4 * kMiB, 16 * kMiB, 64 * kMiB}) {
        for (const std::uint64_t length :
             {std::uint64_t{64}, kKiB, 16 * kKiB, 64 * kKiB, kMiB, std::uint64_t{3110400}}) {
            benchmark->Args({static_cast<std::int64_t>(length), static_cast<std::int64_t>(ring)});
        }
    }
}

BENCHMARK(Library)->Apply(Arguments);
BENCHMARK(Bare)->Apply(Arguments);
BENCHMARK(Limit<CopyPlain>)->Name("CopyPlain")->Apply(Arguments);
BENCHMARK(Limit<CopyNonTemporal>)->Name("CopyNonTemporal")->Apply(Arguments);

}  // namespace
}  // namespace qel::bench

BENCHMARK_MAIN();
