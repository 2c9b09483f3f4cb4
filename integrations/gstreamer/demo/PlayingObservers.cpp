#include "PlayingObservers.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <stdexcept>

#include "ElementHandles.h"

namespace qel {
namespace {

/// Formats with a coarser clock than ours round each time stamp and duration.
constexpr GstClockTimeDiff kTolerance = GST_MSECOND;

double MillisecondsSince(GstClockTime unixTime) {
    const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<double>(now.count() - static_cast<std::int64_t>(unixTime)) / 1e6;
}

}  // namespace

void AnalysisObserver::See(GstBuffer* frame, GstCaps* caps) {
    const std::uint64_t size = gst_buffer_get_size(frame);
    if (size > counters_.largestFrame) {
        counters_.largestFrame = size;
    }
    if (GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT) != 0) {
        return;
    }
    if (const auto luma = decoder_.MeanLumaOf(frame, caps)) {
        counters_.decoded.fetch_add(1);
        counters_.luma = *luma;
    }
}

FingerprintObserver::FingerprintObserver(NodeCounters& counters)
    : counters_(counters), state_(XXH3_createState(), XXH3_freeState) {
    if (!state_ || XXH3_64bits_reset(state_.get()) != XXH_OK) {
        throw std::bad_alloc();
    }
}

void FingerprintObserver::See(GstBuffer* frame, GstCaps* /*caps*/) {
    const MappedBuffer bytes(frame);
    if (!bytes.IsMapped()) {
        throw std::runtime_error("cannot read a frame");
    }
    (void)XXH3_64bits_update(state_.get(), bytes.Data(), bytes.Size());
    counters_.fingerprint = XXH3_64bits_digest(state_.get());
    CheckTime(frame);
}

/// In decoding order, in which each frame begins where the one before ends.
void FingerprintObserver::CheckTime(GstBuffer* frame) {
    const GstClockTime time = GST_BUFFER_DTS(frame);
    const GstClockTime duration = GST_BUFFER_DURATION(frame);
    const bool complete = GST_CLOCK_TIME_IS_VALID(time) && GST_CLOCK_TIME_IS_VALID(duration);
    if (!complete || (expected_ && std::abs(GST_CLOCK_DIFF(*expected_, time)) > kTolerance)) {
        counters_.gaps.fetch_add(1);
    }
    expected_.reset();
    if (complete) {
        expected_ = time + duration;
    }
}

void LatencyObserver::See(GstBuffer* frame, GstCaps* /*caps*/) {
    const GstReferenceTimestampMeta* const captured =
        gst_buffer_get_reference_timestamp_meta(frame, captureTime_.get());
    if (captured == nullptr) {
        throw std::runtime_error("a frame has no capture time");
    }
    milliseconds_.push_back(MillisecondsSince(captured->timestamp));
    const auto now = std::chrono::steady_clock::now();
    constexpr std::chrono::milliseconds kPeriod{100};
    if (now >= nextPublication_) {
        nextPublication_ = now + kPeriod;
        Publish();
    }
}

void LatencyObserver::Publish() {
    if (!milliseconds_.empty()) {
        counters_.medianLatency = Percentile(0.5);
        counters_.highLatency = Percentile(0.99);
    }
}

double LatencyObserver::Percentile(double part) {
    const auto rank =
        static_cast<std::ptrdiff_t>(part * static_cast<double>(milliseconds_.size() - 1));
    const auto place = milliseconds_.begin() + rank;
    std::nth_element(milliseconds_.begin(), place, milliseconds_.end());
    return *place;
}

}  // namespace qel
