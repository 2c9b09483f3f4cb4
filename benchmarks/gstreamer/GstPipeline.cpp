#include "GstPipeline.h"

#include <stdexcept>

namespace qel {
namespace {

[[noreturn]] void ThrowErrorOf(GstMessage* message) {
    GError* error = nullptr;
    gchar* details = nullptr;
    gst_message_parse_error(message, &error, &details);
    const std::string text = std::string(GST_MESSAGE_SRC_NAME(message)) + ": " + error->message +
                             " (" + (details != nullptr ? details : "no details") + ")";
    g_error_free(error);
    g_free(details);
    throw std::runtime_error(text);
}

ElementPointer MakePipeline(const std::string& description) {
    gst_init(nullptr, nullptr);
    GError* error = nullptr;
    GstElement* made =
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (error != nullptr) {
        const std::string text = description + ": " + error->message;
        g_error_free(error);
        throw std::runtime_error(text);
    }
    return ElementPointer(GST_ELEMENT(gst_object_ref_sink(made)));
}

}  // namespace

GstPipelineOwner::GstPipelineOwner(const std::string& description)
    : pipeline_(MakePipeline(description)), bus_(gst_element_get_bus(pipeline_.get())) {}

GstPipelineOwner::~GstPipelineOwner() {
    Stop();
}

ElementPointer GstPipelineOwner::Element(const std::string& name) const {
    ElementPointer element(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name.c_str()));
    if (!element) {
        throw std::runtime_error("the pipeline has no element " + name);
    }
    return element;
}

void GstPipelineOwner::Play() {
    if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE) {
        return;
    }
    const MessagePointer error(gst_bus_pop_filtered(bus_.get(), GST_MESSAGE_ERROR));
    if (error) {
        ThrowErrorOf(error.get());
    }
    throw std::runtime_error("the pipeline does not start");
}

void GstPipelineOwner::Stop() noexcept {
    (void)gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

MessagePointer GstPipelineOwner::AwaitEnd(GstClockTime patience) {
    constexpr int kWanted = GST_MESSAGE_ERROR | GST_MESSAGE_EOS | GST_MESSAGE_APPLICATION;
    MessagePointer message(
        gst_bus_timed_pop_filtered(bus_.get(), patience, static_cast<GstMessageType>(kWanted)));
    if (message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
        ThrowErrorOf(message.get());
    }
    return message;
}

void GstPipelineOwner::PostEnd() noexcept {
    (void)gst_bus_post(bus_.get(), gst_message_new_application(GST_OBJECT(pipeline_.get()),
                                                               gst_structure_new_empty("end")));
}

std::uint64_t CountedCopies(GstElement* element) {
    const GParamSpec* property = g_object_class_find_property(G_OBJECT_GET_CLASS(element), "stats");
    if (property == nullptr || property->value_type != GST_TYPE_STRUCTURE) {
        return 0;
    }
    GstStructure* stats = nullptr;
    g_object_get(element, "stats", &stats, nullptr);
    guint64 copies = 0;
    if (stats != nullptr) {
        (void)gst_structure_get_uint64(stats, "copies", &copies);  // basesink's has none
        gst_structure_free(stats);
    }
    return copies;
}

}  // namespace qel
