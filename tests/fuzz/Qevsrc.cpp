/// The element qevsrc, and a writer that puts anything into the ring, the control ring and the
/// block of caps. It delivers buffers of bytes that it may touch, or tells an error, and stops when
/// it is asked to.
#include "QevSrc.h"

#include <sched.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <string_view>
#include <vector>

#include "Ends.h"
#include "ForgedStream.h"
#include "GstHandles.h"
#include "LogControl.h"
#include "ProcessState.h"
#include "SystemSemaphore.h"
#include "WithoutPlugins.h"

namespace qel::fuzz {
namespace {

constexpr unsigned kMostWrites = 40;
constexpr unsigned kMostPhases = 4;

/// True for what GStreamer's parser complains of when a text is none: not of how it is used.
bool IsOfParser(std::string_view text) {
    constexpr std::array<std::string_view, 3> kBeginnings{"gst_structure_new_empty:", "gst_value_",
                                                          "gst_buffer_unmap:"};
    return std::any_of(kBeginnings.begin(), kBeginnings.end(), [text](std::string_view beginning) {
        return text.substr(0, beginning.size()) == beginning;
    });
}

/// Lets a run fail in which GLib or GStreamer complain of how they are used.
void OnLog(const gchar* domain, GLogLevelFlags level, const gchar* text, gpointer /*data*/) {
    const bool isComplaint =
        (static_cast<unsigned>(level) & static_cast<unsigned>(G_LOG_LEVEL_CRITICAL)) != 0;
    if (isComplaint && !IsOfParser(text)) {
        Fail(std::string(domain == nullptr ? "" : domain) + ": " + text);
    }
}

void StartGStreamerOnce() {
    static const bool isStarted = [] {
        LogControl::SetSink([](const LogRecord&) {});  // what is refused is no news here
        test::InitWithoutPlugins();
        (void)g_log_set_default_handler(OnLog, nullptr);
        return GST_ELEMENT_REGISTER(qevsrc, nullptr) != FALSE;
    }();
    Require(isStarted, "the element is there");
}

/// What is linked behind the element: touches all that comes, and keeps some of it.
class Receiver {
public:
    Receiver(GstElement* source, std::uint64_t ringSize, bool keeps)
        : ringSize_(ringSize), keeps_(keeps), pad_(gst_pad_new("sink", GST_PAD_SINK)) {
        gst_object_ref_sink(pad_);
        GST_PAD_ELEMENT_PRIVATE(pad_) = this;
        gst_pad_set_chain_function(pad_, OnBuffer);
        gst_pad_set_event_function(pad_, OnEvent);
        gst_pad_set_active(pad_, TRUE);
        GstPad* const peer = gst_element_get_static_pad(source, "src");
        gst_pad_link(peer, pad_);
        gst_object_unref(peer);
    }
    ~Receiver() {
        gst_pad_set_active(pad_, FALSE);
        gst_object_unref(pad_);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    [[nodiscard]] bool IsAtEnd() const { return isAtEnd_; }

private:
    static GstFlowReturn OnBuffer(GstPad* pad, GstObject* /*parent*/, GstBuffer* buffer) {
        static_cast<Receiver*>(GST_PAD_ELEMENT_PRIVATE(pad))->Take(BufferHandle(buffer));
        return GST_FLOW_OK;
    }
    static gboolean OnEvent(GstPad* pad, GstObject* /*parent*/, GstEvent* event) {
        if (GST_EVENT_TYPE(event) == GST_EVENT_EOS) {
            static_cast<Receiver*>(GST_PAD_ELEMENT_PRIVATE(pad))->isAtEnd_ = true;
        }
        gst_event_unref(event);
        return TRUE;
    }
    void Take(BufferHandle buffer) {
        GstMapInfo map;
        Require(gst_buffer_map(buffer.get(), &map, GST_MAP_READ) != FALSE, "a buffer is mapped");
        Require(map.size <= ringSize_, "no buffer is larger than the ring");
        Touch(map.data, map.size);
        gst_buffer_unmap(buffer.get(), &map);
        if (keeps_ && kept_.size() < 5) {
            kept_.insert(kept_.begin() + static_cast<std::ptrdiff_t>(kept_.size() / 2),
                         std::move(buffer));
        }
    }

    std::uint64_t ringSize_;
    bool keeps_;
    GstPad* pad_;
    std::atomic<bool> isAtEnd_{false};
    std::vector<BufferHandle> kept_;  ///< given back in another order
};

/// A source with a bus of its own, stopped at the end.
class Source {
public:
    Source(Input& input, const std::string& name)
        : element_(gst_element_factory_make("qevsrc", name.c_str())), bus_(gst_bus_new()) {
        gst_object_ref_sink(element_);
        gst_element_set_bus(element_, bus_);
        constexpr std::array<gint64, 3> kOutstanding{-1, 0, 100};
        g_object_set(element_, "sink", TRUE, "writable", input.Flag() ? TRUE : FALSE,
                     "start-at-key-frame", input.Flag() ? TRUE : FALSE, "align-time",
                     input.Flag() ? TRUE : FALSE, "ignore-eos", input.Flag() ? TRUE : FALSE,
                     "max-outstanding", kOutstanding.at(input.Choice(kOutstanding.size())),
                     nullptr);
        if (input.Flag()) {
            gst_util_set_object_arg(G_OBJECT(element_), "caps", "test/x-frames, number=(int)7");
        }
    }
    ~Source() {
        Stop();
        gst_element_set_bus(element_, nullptr);
        gst_object_unref(element_);
        gst_object_unref(bus_);
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    [[nodiscard]] GstElement* Get() const { return element_; }
    void Play() const { (void)gst_element_set_state(element_, GST_STATE_PLAYING); }
    void Stop() const { (void)gst_element_set_state(element_, GST_STATE_NULL); }

    /// True once it has told an error; other messages are dropped.
    bool HasFailed() {
        while (GstMessage* const message = gst_bus_pop(bus_)) {
            hasFailed_ = hasFailed_ || GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR;
            gst_message_unref(message);
        }
        return hasFailed_;
    }

private:
    GstElement* element_;
    GstBus* bus_;
    bool hasFailed_ = false;
};

/// Returns when the source has looked at all that was written, or has come to an end. It takes a
/// post when it has found nothing more, so the second one that it takes tells.
void AwaitIdle(const std::string& name, Source& source, const Receiver& receiver) {
    const SystemSemaphore wakeUp(StreamNames(name).WakeUp(1), SystemSemaphore::IfMissing::Create);
    for (int post = 0; post < 2; ++post) {
        wakeUp.Signal();
        while (wakeUp.Value() != 0 && !source.HasFailed() && !receiver.IsAtEnd()) {
            ::sched_yield();
        }
    }
}

void Run(Input& input) {
    ForgedStream stream(input);
    Source source(input, stream.Name());
    Receiver receiver(source.Get(), stream.Size(), input.Flag());
    const unsigned start = input.Choice(kMostPhases);
    for (unsigned phase = 0; phase < kMostPhases; ++phase) {
        if (phase == start) {
            source.Play();
        }
        for (unsigned i = input.Choice(kMostWrites); i != 0 && !input.IsUsedUp(); --i) {
            stream.Write(input);
        }
        if (phase >= start) {
            AwaitIdle(stream.Name(), source, receiver);
        }
    }
    source.Stop();
}

}  // namespace
}  // namespace qel::fuzz

int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    qel::fuzz::StartGStreamerOnce();
    qel::fuzz::Input input(data, size);
    qel::fuzz::Run(input);
    qel::fuzz::Require(qel::test::HoldingsOf("qev-test-") == qel::test::Holdings{},
                       "neither descriptor nor mapping is left");
    return 0;
}
