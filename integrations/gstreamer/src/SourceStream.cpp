#include "SourceStream.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "RingBuffer.h"
#include "RingObject.h"

namespace qel {
namespace {

bool IsSameStream(const StreamOptions& a, const StreamOptions& b) {
    return a.name == b.name && a.node == b.node && a.sink == b.sink && a.wakeUp == b.wakeUp &&
           (a.size == b.size || b.size == 0);
}

}  // namespace

void SourceStream::Start(const SourceSettings& settings) {
    const CommonSettings& common = settings.common;
    const std::string name = RingNameOf(GST_OBJECT(source_), common.ring);
    (void)StreamNames(name);
    settings_ = settings;
    options_ = {name,          common.size, static_cast<std::uint8_t>(common.node),
                settings.sink, 0,           common.wakeUp};
    state_.Reset(name, settings.caps, settings.alignTime);
    awaitsKeyFrame_ = settings.startAtKeyFrame;
    isDiscont_ = true;
    for (auto* const figure : {&packets_, &bytes_, &copies_, &skipped_}) {
        figure->store(0);
    }
}

void SourceStream::Stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (reader_) {  // not if this run has ended before the ring was opened
        left_ = reader_->TakeRecords();
        leftBy_ = options_;
        last_ = reader_;
        reader_.reset();
    }
}

void SourceStream::SetFlushing(bool flushing) {
    const std::lock_guard<std::mutex> lock(mutex_);
    flushing_ = flushing;
    flushed_.notify_all();
    if (flushing && reader_) {
        reader_->Wake();
    }
}

GstFlowReturn SourceStream::Create(GstBuffer** buffer) {
    while (true) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (flushing_) {
                return GST_FLOW_FLUSHING;
            }
        }
        if (!reader_ && !Open()) {
            continue;
        }
        if (const auto received = reader_->TryNext()) {
            if (const auto result = Deliver(*received, buffer)) {
                return *result;
            }
        } else if (const auto event = reader_->TakeEvent()) {
            state_.Apply(*event);
        } else {
            reader_->Wait();
        }
    }
}

/// Opens the ring; false, after a pause, if that has to be tried again.
bool SourceStream::Open() {
    auto reader = last_.lock();
    if (!reader || !IsSameStream(reader->Options(), options_)) {
        reader = MakeReader();
    }
    if (!reader) {
        constexpr std::chrono::milliseconds kBetweenLooks(5);
        std::unique_lock<std::mutex> lock(mutex_);
        (void)flushed_.wait_for(lock, kBetweenLooks, [this] { return flushing_; });
        return false;
    }
    if (IsSameStream(leftBy_, options_)) {
        reader->PutBack(std::exchange(left_, {}));
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    reader_ = std::move(reader);
    return true;
}

/// @return nothing if the ring is not there yet, or if another thread is just giving back the last
///         buffer of the run before, and with it the node
std::shared_ptr<StreamReader> SourceStream::MakeReader() {
    StreamOptions options = options_;
    if (lastHasGone_ && last_.expired() && !*lastHasGone_) {
        return nullptr;
    }
    if (options.size == 0) {
        options.size = RingObject::FindSize(options.name).value_or(0);
    }
    if (options.size == 0) {
        return nullptr;
    }
    auto hasGone = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<StreamReader> reader(new StreamReader(options),
                                         [hasGone](const StreamReader* gone) {
                                             delete gone;
                                             *hasGone = true;
                                         });
    lastHasGone_ = std::move(hasGone);
    return reader;
}

std::optional<GstFlowReturn> SourceStream::Deliver(const ReceivedPacket& received,
                                                   GstBuffer** buffer) {
    if (received.outcome == ReadOutcome::Broken) {
        throw std::runtime_error("ring " + options_.name + ": its counters are inconsistent");
    }
    const ControlQueue::Match match = reader_->TakeControl(received.packet);
    for (const ControlRecord& event : match.events) {
        state_.Apply(event);
    }
    if (received.outcome == ReadOutcome::EndOfStream) {
        (void)reader_->HandOn(received.ticket);
        isDiscont_ = true;
        state_.BeginStream();
        return settings_.ignoreEos ? std::nullopt : std::optional(GST_FLOW_EOS);
    }
    if (!IsWanted(received.packet, match.details)) {
        (void)reader_->HandOn(received.ticket);
        ++skipped_;
        isDiscont_ = true;
        return std::nullopt;
    }
    *buffer = MakeBuffer(received, match.details);
    return GST_FLOW_OK;
}

bool SourceStream::IsWanted(const Packet& packet, const std::optional<ControlHead>& details) {
    if (!state_.KnowsCapsOf(*reader_, packet, details)) {
        awaitsKeyFrame_ = settings_.startAtKeyFrame;
        return false;
    }
    awaitsKeyFrame_ = awaitsKeyFrame_ && !packet.header.key;
    return !awaitsKeyFrame_;
}

GstBuffer* SourceStream::MakeBuffer(const ReceivedPacket& received,
                                    const std::optional<ControlHead>& details) {
    const std::uint64_t bound = settings_.maxOutstanding < 0
                                    ? reader_->Options().size / 4 * 3
                                    : static_cast<std::uint64_t>(settings_.maxOutstanding);
    const PacketHeader header = received.packet.header;
    const std::size_t size = received.packet.data.size();
    GstBuffer* buffer = nullptr;
    if (size != 0 && reader_->GetOutstanding().bytes > bound) {
        buffer = CopyPacket(*reader_, received);
        ++copies_;
    } else {
        buffer = WrapPacket(reader_, received, settings_.writable);
    }
    Describe(buffer, header, details);
    if (std::exchange(isDiscont_, false)) {
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    }
    state_.AheadOf(buffer, header);
    ++packets_;
    bytes_ += size;
    return buffer;
}

GstStructure* SourceStream::Stats() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto outstanding =
        reader_ ? reader_->GetOutstanding() : InOrderRelease::Outstanding{0, 0};
    const guint64 fillers = reader_ ? reader_->Fillers() : 0;
    const guint64 recovered = reader_ ? reader_->Recovered() : 0;
    return gst_structure_new(
        kStatsName, "packets", G_TYPE_UINT64, packets_.load(), "bytes", G_TYPE_UINT64,
        bytes_.load(), "copies", G_TYPE_UINT64, copies_.load(), "skipped", G_TYPE_UINT64,
        skipped_.load(), "fillers", G_TYPE_UINT64, fillers, "outstanding-packets", G_TYPE_UINT64,
        static_cast<guint64>(outstanding.packets), "outstanding-bytes", G_TYPE_UINT64,
        static_cast<guint64>(outstanding.bytes), "recovered", G_TYPE_UINT64, recovered, nullptr);
}

}  // namespace qel
