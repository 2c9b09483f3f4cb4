#include "MediaPipeline.h"

#include <stdexcept>

namespace qel {
namespace {

[[noreturn]] void Fail(GError* error) {
    const std::string text = error->message;
    g_error_free(error);
    throw std::runtime_error(text);
}

void ThrowIfError(GstMessage* message) {
    if (message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        Fail(error);
    }
}

}  // namespace

MediaPipeline::MediaPipeline(const std::string& description) {
    GError* error = nullptr;
    pipeline_.reset(
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error));
    if (error != nullptr) {
        Fail(error);
    }
    bus_.reset(gst_element_get_bus(pipeline_.get()));
}

MediaPipeline::~MediaPipeline() {
    (void)gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

GstElement* MediaPipeline::Get(const char* name) const {
    GstElement* const element = gst_bin_get_by_name(GST_BIN(pipeline_.get()), name);
    gst_object_unref(element);  // the pipeline keeps it
    return element;
}

void MediaPipeline::Play() {
    if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        RequireNoError();
        throw std::runtime_error("the pipeline cannot be started");
    }
}

void MediaPipeline::RequireNoError() const {
    const MessageHandle message(gst_bus_pop_filtered(bus_.get(), GST_MESSAGE_ERROR));
    ThrowIfError(message.get());
}

void MediaPipeline::WaitForEnd() const {
    const MessageHandle message(gst_bus_timed_pop_filtered(
        bus_.get(), GST_CLOCK_TIME_NONE,
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    ThrowIfError(message.get());
}

}  // namespace qel
