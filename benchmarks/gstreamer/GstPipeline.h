#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <string>

namespace qel {

struct GstObjectRelease {
    void operator()(gpointer object) const noexcept { gst_object_unref(object); }
};
struct GstMessageRelease {
    void operator()(GstMessage* message) const noexcept { gst_message_unref(message); }
};
using ElementPointer = std::unique_ptr<GstElement, GstObjectRelease>;
using BusPointer = std::unique_ptr<GstBus, GstObjectRelease>;
using MessagePointer = std::unique_ptr<GstMessage, GstMessageRelease>;

/// A pipeline of one process; stops when it goes.
class GstPipelineOwner {
public:
    /// Initialises GStreamer and makes the elements.
    /// @throws std::runtime_error, also when an element is missing
    explicit GstPipelineOwner(const std::string& description);
    ~GstPipelineOwner();
    GstPipelineOwner(const GstPipelineOwner&) = delete;
    GstPipelineOwner& operator=(const GstPipelineOwner&) = delete;

    /// @throws std::runtime_error when there is none of that name
    [[nodiscard]] ElementPointer Element(const std::string& name) const;

    /// @throws std::runtime_error with the first error's text
    void Play();
    void Stop() noexcept;

    /// Waits for the end of the stream or an application's message.
    /// @return nothing when the time is up
    /// @throws std::runtime_error with an error's text
    [[nodiscard]] MessagePointer AwaitEnd(GstClockTime patience);

    /// Ends the wait of `AwaitEnd`; for any thread.
    void PostEnd() noexcept;

private:
    ElementPointer pipeline_;
    BusPointer bus_;
};

/// Copies that an element counted: of ours, those beside the one into the ring; 0 for others.
[[nodiscard]] std::uint64_t CountedCopies(GstElement* element);

}  // namespace qel
