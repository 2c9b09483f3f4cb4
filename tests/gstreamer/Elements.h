#pragma once

#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "GstHandles.h"

namespace qel::test {

struct EventUnref {
    void operator()(GstEvent* event) const { gst_event_unref(event); }
};
using EventHandle = std::unique_ptr<GstEvent, EventUnref>;

/// Names and values as gst-launch-1.0 takes them.
using Properties = std::vector<std::pair<std::string, std::string>>;

/// An element with a bus of its own; stopped at the end.
class Element {
public:
    /// @param name  empty: one that GStreamer makes up
    Element(const char* factory, const std::string& name, const Properties& properties);
    ~Element();
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

    [[nodiscard]] GstElement* Get() const { return element_; }

    /// @return false if the element refuses
    [[nodiscard]] bool SetState(GstState state) const;

    /// Waits for an error: its domain and code, as in "gst-resource-error-quark 6", and its text.
    struct Error {
        std::string code;
        std::string text;
    };
    [[nodiscard]] Error AwaitError() const { return Await(GST_MESSAGE_ERROR); }
    [[nodiscard]] Error AwaitWarning() const { return Await(GST_MESSAGE_WARNING); }

    /// Messages "qev-stats" since the last call.
    [[nodiscard]] int TakeStatsMessages() const;

    /// Warnings since the last one that was looked at.
    [[nodiscard]] int TakeWarnings() const;

    /// A figure of the statistics.
    [[nodiscard]] std::uint64_t Figure(const char* name) const;

    template <typename Value>
    [[nodiscard]] Value Property(const char* name) const {
        Value value{};
        g_object_get(element_, name, &value, nullptr);
        return value;
    }

private:
    [[nodiscard]] Error Await(GstMessageType type) const;

    GstElement* element_;
    GstBus* bus_;
};

/// Code of an error as `Element::Error` gives it.
std::string ResourceError(GstResourceError code);
std::string StreamError(GstStreamError code);

/// A qevsink that plays, and what is pushed to it. The segment is in time format.
class Sink : public Element {
public:
    explicit Sink(const std::string& name, const Properties& properties = {},
                  const char* caps = "test/x-frames, number=(int)1");
    ~Sink() { gst_harness_teardown(harness_); }

    GstFlowReturn Push(BufferHandle buffer) { return gst_harness_push(harness_, buffer.release()); }
    bool PushEvent(GstEvent* event) { return gst_harness_push_event(harness_, event) != FALSE; }
    /// New caps, and the segment behind them, as upstream elements send them.
    void SetCaps(const char* caps) { gst_harness_set_src_caps_str(harness_, caps); }
    /// The end of the stream, which is written before this returns.
    bool End() { return PushEvent(gst_event_new_eos()); }

private:
    GstHarness* harness_;
};

/// A qevsrc, and what it delivers.
class Source : public Element {
public:
    explicit Source(const std::string& name, const Properties& properties = {{"sink", "true"}});
    ~Source() { gst_harness_teardown(harness_); }

    /// Starts it, if that has not been done.
    Source& Play();

    /// Waits for a buffer.
    BufferHandle Pull() { return BufferHandle(gst_harness_pull(harness_)); }
    /// The oldest buffer that has been delivered and not pulled; nothing if there is none.
    BufferHandle TryPull() { return BufferHandle(gst_harness_try_pull(harness_)); }
    [[nodiscard]] std::size_t Delivered() const { return gst_harness_buffers_received(harness_); }
    /// Waits for an event of `type` and drops those ahead of it.
    EventHandle AwaitEvent(GstEventType type);

    /// What has left the pad, in order: "caps NAME/...", "segment", "buffer PTS", "tag", "gap",
    /// "eos", names of custom events. Repeated segments and what is not of the stream are left out.
    [[nodiscard]] std::vector<std::string> History() const;

    [[nodiscard]] GstHarness* Harness() const { return harness_; }

private:
    static GstPadProbeReturn Note(GstPad* pad, GstPadProbeInfo* info, gpointer self);

    GstHarness* harness_;
    mutable std::mutex mutex_;
    std::vector<std::string> history_;
};

/// What a test wants to know of a buffer.
struct Frame {
    std::string content;
    GstClockTime pts = GST_CLOCK_TIME_NONE;
    bool isKey = true;
};

BufferHandle MakeBuffer(const Frame& frame);
std::string ContentOf(GstBuffer* buffer);
inline std::string ContentOf(const BufferHandle& buffer) {
    return ContentOf(buffer.get());
}
/// The frame's flags.
guint FlagsOf(const BufferHandle& buffer);
std::string TextOf(const GstCaps* caps);

}  // namespace qel::test
