#include "Writer.h"

#include <fmt/format.h>
#include <gst/app/gstappsrc.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>

#include "Clocks.h"
#include "Frames.h"
#include "GstPipeline.h"

namespace qel {
namespace {

constexpr std::chrono::seconds kPatience{30};

/// Frames are made in the streaming thread, when its source runs empty: there is no queue between
/// the pacing and the transport, and what holds the transport up holds up the pacing.
///
/// Thread use: made, run and destroyed by one thread; all else happens in the streaming thread.
class Writer {
public:
    Writer(const Plan& plan, const Transport& transport, Board& board)
        : plan_(plan),
          board_(board.Get()),
          frames_(plan.stream.FrameBytes()),
          period_(plan.flatOut ? 0 : kNanosecondsPerSecond / plan.stream.rate),
          pipeline_(Description(plan, transport)),
          source_(pipeline_.Element("source")),
          sending_(pipeline_.Element(transport.Name())) {
        GstAppSrcCallbacks callbacks{};
        callbacks.need_data = [](GstAppSrc*, guint, gpointer writer) {
            static_cast<Writer*>(writer)->Feed();
        };
        gst_app_src_set_callbacks(GST_APP_SRC(source_.get()), &callbacks, this, nullptr);
    }

    void Run() {
        pipeline_.Play();
        (void)pipeline_.AwaitEnd(GST_CLOCK_TIME_NONE);
        if (failure_ != nullptr) {
            throw std::runtime_error(failure_);
        }
        board_.writer.copies = CountedCopies(sending_.get());
        pipeline_.Stop();
    }

private:
    static std::string Description(const Plan& plan, const Transport& transport) {
        return fmt::format(
            "appsrc name=source format=time "
            "caps=video/x-raw,format=I420,width={},height={},framerate={}/1 ! {}",
            plan.stream.width, plan.stream.height, plan.stream.rate, transport.Sending());
    }

    void Feed() {
        if (next_ == 0) {
            board_.writerIsThere.Arrive();
            if (!board_.readerIsThere.Await(kPatience)) {
                return Fail("the reader does not come");
            }
            start_ = MonotonicNow();
        }
        if (next_ == plan_.warmUp) {
            measured_.emplace();
        }
        if (next_ == plan_.frames) {
            return Finish();
        }
        Send(next_++);
    }

    void Send(std::uint64_t number) {
        std::atomic<bool>& isInUse = inUse_[number % FrameSet::kCount];
        if (isInUse.exchange(true)) {
            return Fail("the transport keeps the writer's frames");
        }
        SleepUntil(start_ + static_cast<std::int64_t>(number) * period_);
        std::vector<unsigned char>& frame = frames_.Stamp({number, MonotonicNow()});
        GstBuffer* buffer = gst_buffer_new_wrapped_full(
            static_cast<GstMemoryFlags>(0), frame.data(), frame.size(), 0, frame.size(), &isInUse,
            [](gpointer flag) { static_cast<std::atomic<bool>*>(flag)->store(false); });
        const auto rate = static_cast<guint64>(plan_.stream.rate);
        GST_BUFFER_PTS(buffer) = gst_util_uint64_scale(number, GST_SECOND, rate);
        GST_BUFFER_DURATION(buffer) = GST_SECOND / rate;
        (void)gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
    }

    void Finish() {
        board_.writer.measured = measured_->Read();
        // A frame that got lost at the end is the reader's to report.
        (void)board_.readerHasAll.Await(kPatience);
        board_.writer.idle = MeasureIdling(plan_.idleSeconds);
        (void)gst_app_src_end_of_stream(GST_APP_SRC(source_.get()));
    }

    void Fail(const char* text) {
        failure_ = text;
        pipeline_.PostEnd();
    }

    const Plan& plan_;
    Board::Content& board_;
    FrameSet frames_;
    std::array<std::atomic<bool>, FrameSet::kCount> inUse_{};
    std::int64_t period_;
    std::int64_t start_ = 0;
    std::uint64_t next_ = 0;
    std::optional<Stopwatch> measured_;
    const char* failure_ = nullptr;  // read when the message behind it has arrived
    GstPipelineOwner pipeline_;      // stops before what its threads use goes
    ElementPointer source_;
    ElementPointer sending_;
};

}  // namespace

int RunWriter(const Plan& plan, Transport& transport, Board& board) {
    board.Get().writerPid = getpid();
    transport.BecomeWriter();
    Writer(plan, transport, board).Run();
    return 0;
}

}  // namespace qel
