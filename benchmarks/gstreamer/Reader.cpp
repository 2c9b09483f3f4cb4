#include "Reader.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>

#include "Clocks.h"
#include "Frames.h"
#include "GstPipeline.h"
#include "SharedMappings.h"

namespace qel {
namespace {

constexpr std::chrono::seconds kPatience{30};
constexpr GstClockTime kStall = 5 * GST_SECOND;

/// Thread use: made, run and destroyed by one thread; frames come in the streaming thread.
class Reader {
public:
    Reader(const Plan& plan, const Transport& transport, Board& board)
        : plan_(plan),
          board_(board.Get()),
          latencies_(board.Latencies()),
          checker_(plan.stream.FrameBytes(), plan.readAll),
          pipeline_(transport.Receiving() +
                    " ! fakesink name=end signal-handoffs=true sync=false async=false"
                    " enable-last-sample=false"),
          receiving_(pipeline_.Element(transport.Name())) {
        const auto handle = +[](GstElement*, GstBuffer* buffer, GstPad*, gpointer reader) {
            static_cast<Reader*>(reader)->Take(buffer);
        };
        g_signal_connect(pipeline_.Element("end").get(), "handoff", G_CALLBACK(handle), this);
    }

    void Run() {
        pipeline_.Play();
        board_.readerIsThere.Arrive();
        AwaitLastFrame();
        board_.reader.idle = MeasureIdling(plan_.idleSeconds);
        board_.reader.copies = CountedCopies(receiving_.get());
        pipeline_.Stop();
    }

private:
    /// Ends also when the stream does, or when nothing comes any more.
    void AwaitLastFrame() {
        std::uint64_t before = 0;
        while (!pipeline_.AwaitEnd(kStall)) {
            const std::uint64_t arrived = arrived_.load();
            if (arrived == before) {
                return;
            }
            before = arrived;
        }
    }

    void Take(GstBuffer* buffer) {
        arrived_.fetch_add(1);
        GstMapInfo map{};
        if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE) {
            ++board_.wrong;
            return;
        }
        // Before the frame is read, which is the reader's business; behind the mapping, which
        // puts a frame of several pieces together.
        const std::int64_t now = MonotonicNow();
        const auto stamp = checker_.Check(map.data, map.size);
        if (stamp && stamp->number < plan_.warmUp) {
            ++board_.seen;
            board_.copied += mappings_.Contain(map.data) ? 0 : 1;
        }
        gst_buffer_unmap(buffer, &map);
        if (!stamp || stamp->number < next_ || stamp->number >= plan_.frames) {
            ++board_.wrong;
            return;
        }
        next_ = stamp->number + 1;
        ++board_.received;
        Measure(*stamp, now);
    }

    void Measure(const FrameStamp& stamp, std::int64_t now) {
        if (!measured_) {
            if (next_ >= plan_.warmUp) {
                measured_.emplace();
            }
            return;
        }
        latencies_[board_.latencyCount++] = now - stamp.sent;
        board_.reader.measured = measured_->Read();
        if (next_ == plan_.frames) {
            board_.readerHasAll.Arrive();
            pipeline_.PostEnd();
        }
    }

    const Plan& plan_;
    Board::Content& board_;
    std::int64_t* latencies_;
    FrameChecker checker_;
    SharedMappings mappings_;
    std::uint64_t next_ = 0;
    std::atomic<std::uint64_t> arrived_{0};
    std::optional<Stopwatch> measured_;
    GstPipelineOwner pipeline_;  // stops before what its threads use goes
    ElementPointer receiving_;
};

}  // namespace

int RunReader(const Plan& plan, Transport& transport, Board& board) {
    transport.BecomeReader();
    if (!board.Get().writerIsThere.Await(kPatience)) {
        throw std::runtime_error("the writer does not come");
    }
    Reader(plan, transport, board).Run();
    return 0;
}

}  // namespace qel
