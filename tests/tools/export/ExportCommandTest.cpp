#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "Command.h"
#include "Http.h"
#include "Pipe.h"
#include "RingUnderTest.h"

namespace qel::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// The value of a line of the exposition that begins with `series`.
std::optional<double> ValueIn(const std::string& text, const std::string& series) {
    const std::string start = "\n" + series + " ";
    const auto at = text.find(start);
    return at == std::string::npos ? std::nullopt
                                   : std::optional(std::strtod(&text[at + start.size()], nullptr));
}

/// An exporter that serves the objects of one name.
class Exporter {
public:
    explicit Exporter(const std::string& name)
        : command_({"export", "--listen", "127.0.0.1:0", "--name", name}, {-1, out_.In(), -1}) {
        out_.CloseIn();
        const std::string start = "metrics at http://127.0.0.1:";
        const std::string said = out_.ReadTo("\n");
        EXPECT_THAT(said, AllOf(StartsWith(start), EndsWith("/metrics\n")));
        port_ = static_cast<std::uint16_t>(std::atoi(said.c_str() + start.size()));
    }

    [[nodiscard]] std::uint16_t Port() const { return port_; }
    [[nodiscard]] std::string Metrics() const { return HttpGet(port_, "/metrics"); }
    Command& Process() { return command_; }

private:
    Pipe out_;
    Command command_;
    std::uint16_t port_ = 0;
};

class Export : public testing::Test {
protected:
    void SetUp() override {
        if (Socket().Listen() == 0) {
            GTEST_SKIP() << "nothing can listen on 127.0.0.1 here";
        }
    }
};

TEST_F(Export, ServesMetricsUntilASignal) {
    const RingUnderTest ring;
    for (const int signal : {SIGTERM, SIGINT}) {
        Exporter exporter(ring.Name());
        const std::string answer = exporter.Metrics();
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/plain"));
        EXPECT_EQ(ValueIn(answer, "qev_ring_size_bytes{ring=\"" + ring.Name() + "\"}"), 5000);
        EXPECT_EQ(ValueIn(answer, "qev_ring_users{ring=\"" + ring.Name() + "\"}"), 1);
        EXPECT_THAT(HttpGet(exporter.Port(), "/"), StartsWith("HTTP/1.1 404 Not Found\r\n"));
        const Socket idle;  // does not keep it
        EXPECT_TRUE(signal == SIGINT || idle.Connect(exporter.Port()));
        exporter.Process().Signal(signal);
        const CommandResult result = exporter.Process().Wait();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(Export, CountsWhatARingMoves) {
    // So large that nobody goes round it unseen, however late the exporter is.
    constexpr std::uint64_t kSize = 64U << 20U;
    const UniqueRingName name;
    const auto reader = OpenRing({name.Name(), kSize, 1, true, 0});
    const auto writer = OpenRing({name.Name(), kSize, 0, false, 0});
    const auto of = [&](const std::string& metric, const std::string& node) {
        return "qev_ring_" + metric + "{ring=\"" + name.Name() + "\"" +
               (node.empty() ? "" : ",node=\"" + node + "\"") + "}";
    };
    Exporter exporter(name.Name());
    const std::string packets = of("moved_packets_total", "0");
    WaitUntil([&] { return ValueIn(exporter.Metrics(), packets).has_value(); });
    std::vector<unsigned char> content(74);
    Packet packet;
    packet.data = content;
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(writer->WritePacket(packet), SMStatusCode::SUCCESS);
    }
    for (int i = 0; i < 5; ++i) {
        const auto next = reader->ReadNextPacket();
        EXPECT_EQ(reader->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
    }
    // What was written before it was read has been seen then, too.
    WaitUntil([&] { return ValueIn(exporter.Metrics(), of("moved_packets_total", "1")) == 5; });
    const std::string answer = exporter.Metrics();
    EXPECT_EQ(ValueIn(answer, packets), 6);
    EXPECT_EQ(ValueIn(answer, of("moved_bytes_total", "0")), 600);
    EXPECT_EQ(ValueIn(answer, of("moved_bytes_total", "1")), 500);
    EXPECT_EQ(ValueIn(answer, of("totals_exact", "")), 1);
    EXPECT_EQ(ValueIn(answer, of("waiting_bytes", "1")), 100);
    EXPECT_EQ(ValueIn(answer, of("held_bytes", "1")), 0);
}

TEST_F(Export, SaysThatThePortIsInUse) {
    const Socket other;
    const std::string address = "127.0.0.1:" + std::to_string(other.Listen());
    const CommandResult result = RunQev({"export", "--listen", address});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "qev export: cannot listen on " + address + ": 98(Address already in use)\n");
}

TEST_F(Export, SaysThatAnAddressIsNotOfThisMachine) {
    const CommandResult result = RunQev({"export", "--listen", "192.0.2.1:9464"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "qev export: cannot listen on 192.0.2.1:9464: 99(Cannot assign requested address)\n");
}

TEST(ExportArguments, AddressThatIsNoneIsRefused) {
    for (const std::string address :
         {"", "9464", "localhost:9464", "127.0.0.1", "127.0.0.1:", ":9464", "127.0.0.1:65536",
          "127.0.0.1:-1", "127.0.0.1:9464s", "127.0.0.1:9464,0.0.0.0:1", "1.2.3:9464", "[::1]:9464",
          "1.2.3.4:5:6"}) {
        const CommandResult result = RunQev({"export", "--listen=" + address});
        EXPECT_EQ(result.status, 2) << address;
        EXPECT_THAT(result.err, StartsWith("qev export: --listen: ")) << address;
    }
}

TEST(ExportArguments, OthersAreRefusedToo) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--max-objects", "0"},
          {"--max-objects", "401"},
          {"--max-objects", "x"},
          {"--once", "--listen", "127.0.0.1:0"},
          {"name"}}) {
        std::vector<std::string> all{"export"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const CommandResult result = RunQev(all);
        EXPECT_EQ(result.status, 2) << arguments[0];
        EXPECT_EQ(result.out, "");
    }
}

TEST(ExportOnce, PrintsTheExpositionAndEnds) {
    const RingUnderTest ring;
    const RingUnderTest other;
    const CommandResult result = RunQev({"export", "--once", "--name", ring.Name()});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, AllOf(HasSubstr("# TYPE qev_ring_size_bytes gauge\n"
                                            "qev_ring_size_bytes{ring=\"" +
                                            ring.Name() + "\"} 5000\n"),
                                  HasSubstr("\nqev_ring_state{ring=\"" + ring.Name() +
                                            "\",state=\"idle\"} 1\n"),
                                  Not(HasSubstr(other.Name())), Not(HasSubstr("qev_ring_moved_"))));
    EXPECT_THAT(RunQev({"export", "--once", "--name", ring.Name(), "--name", other.Name()}).out,
                AllOf(HasSubstr(ring.Name()), HasSubstr(other.Name())));
}

TEST(ExportOnce, SaysWhatItMayNotSee) {
    const RingUnderTest ring;
    ASSERT_EQ(chmod(ring.Path().c_str(), 0), 0);
    Streams streams;
    streams.withoutPrivileges = true;
    const CommandResult result = RunQev({"export", "--once", "--name", ring.Name()}, streams);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "qev export: cannot read " + ring.Path() + ": 13(Permission denied)\n");
    EXPECT_EQ(ValueIn(result.out, "qev_exporter_unreadable_objects{kind=\"ring\"}"), 1);
    EXPECT_EQ(ValueIn(result.out, "qev_ring_size_bytes{ring=\"" + ring.Name() + "\"}"),
              std::nullopt);
}

TEST(ExportOnce, FailsWhenItCannotWrite) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_NE(full, -1);
    const CommandResult result = RunQev({"export", "--once"}, {-1, full, -1});
    (void)close(full);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("cannot write to standard output\n"));
}

}  // namespace
}  // namespace qel::test
