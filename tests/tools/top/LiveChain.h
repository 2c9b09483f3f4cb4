#pragma once

#include <sys/prctl.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "NodeClaim.h"
#include "OpenRing.h"
#include "UniqueRingName.h"

namespace qel::test {

/// Two processes that send packets for as long as this object lives, about a thousand a second.
class LiveChain {
public:
    static constexpr std::uint64_t kSize = 100'000;
    static constexpr std::size_t kPayload = 974;  // a hundred records fill the ring exactly
    static constexpr const char* kWriter = "qev-test-writer";
    static constexpr const char* kReader = "qev-test-reader";

    LiveChain()
        : ring_(OpenRing({name_.Name(), kSize, 0, false, 4})),
          writer_([this](const Conversation& parent) { return Write(parent); }),
          reader_([this](const Conversation& parent) { return Read(parent); }) {
        (void)writer_.Hear();
        (void)reader_.Hear();
    }

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] pid_t Writer() const { return writer_.Pid(); }
    [[nodiscard]] pid_t Reader() const { return reader_.Pid(); }

private:
    static void Pace() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

    int Write(const Conversation& parent) const {
        (void)prctl(PR_SET_NAME, kWriter);
        const NodeClaim claim(name_.Name(), 0);
        const auto node = OpenRing({name_.Name(), kSize, 0, false, 0});
        std::vector<unsigned char> content(kPayload);
        Packet packet;
        packet.data = content;
        parent.Say("claimed");
        for (;; Pace()) {
            (void)node->WritePacket(packet);  // the next one will do
        }
    }

    int Read(const Conversation& parent) const {
        (void)prctl(PR_SET_NAME, kReader);
        const NodeClaim claim(name_.Name(), 1);
        const auto node = OpenRing({name_.Name(), kSize, 1, true, 0});
        parent.Say("claimed");
        for (;; Pace()) {
            for (auto next = node->ReadNextPacket(); next.status == SMStatusCode::SUCCESS;
                 next = node->ReadNextPacket()) {
                (void)node->ReleasePacket(next.packet);
            }
        }
    }

    UniqueRingName name_;
    std::unique_ptr<SharedPacketBufferIF> ring_;
    ChildProcess writer_;
    ChildProcess reader_;
};

}  // namespace qel::test
