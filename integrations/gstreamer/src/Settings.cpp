#include "Settings.h"

#include <cerrno>
#include <stdexcept>
#include <string_view>

#include "GstHandles.h"
#include "RingError.h"

namespace qel {
namespace {

constexpr auto kWhileStopped =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
constexpr auto kToLookAt = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);

/// True for a name such as qevsrc0, which GStreamer has made up.
bool IsMadeUp(std::string_view name) {
    for (const std::string_view prefix : {"qevsrc", "qevsink"}) {
        if (name.substr(0, prefix.size()) == prefix && name.size() > prefix.size() &&
            name.find_first_not_of("0123456789", prefix.size()) == std::string_view::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

GType WakeUpType() {
    static const GType type = [] {
        static const GEnumValue values[] = {
            {static_cast<int>(WakeUp::Semaphore),
             "Sleep on the node's semaphore until its neighbour posts", "semaphore"},
            {static_cast<int>(WakeUp::Spin),
             "Look at the ring again and again: lowest latency, keeps a core busy", "spin"},
            {0, nullptr, nullptr}};
        return g_enum_register_static("GstQevWakeUp", values);
    }();
    return type;
}

std::string RingNameOf(GstObject* element, const std::string& ring) {
    if (!ring.empty()) {
        return ring;
    }
    std::string name = TextHandle(gst_object_get_name(element)).get();
    if (IsMadeUp(name)) {
        throw std::invalid_argument("no ring is named: set name, or ring, to the ring's name");
    }
    return name;
}

void InstallCommonProperties(GObjectClass* objectClass, const CommonLimits& limits) {
    const auto install = [objectClass](CommonProperty id, GParamSpec* spec) {
        g_object_class_install_property(objectClass, static_cast<guint>(id), spec);
    };
    install(
        CommonProperty::Ring,
        g_param_spec_string("ring", "Ring",
                            "Name of the ring; unset: the element's own name is the ring's. For "
                            "two elements of one pipeline that use the same ring",
                            nullptr, kWhileStopped));
    install(CommonProperty::Size,
            g_param_spec_uint64("size", "Size", limits.sizeText, 0, G_MAXINT64, limits.defaultSize,
                                kWhileStopped));
    install(CommonProperty::Node,
            g_param_spec_uint("node", "Node", limits.nodeText, limits.firstNode, limits.lastNode,
                              limits.firstNode, kWhileStopped));
    install(CommonProperty::WakeUp,
            g_param_spec_enum("wakeup", "Wake-up", "How to wait for packets or for room",
                              WakeUpType(), static_cast<int>(WakeUp::Semaphore), kWhileStopped));
    install(CommonProperty::Stats,
            g_param_spec_boxed("stats", "Statistics",
                               "What the element has done since it was started; also posted as an "
                               "element message at the end",
                               GST_TYPE_STRUCTURE, kToLookAt));
}

bool SetCommonProperty(CommonSettings& settings, guint id, const GValue* value) {
    switch (static_cast<CommonProperty>(id)) {
        case CommonProperty::Ring: {
            const char* const name = g_value_get_string(value);
            settings.ring = name == nullptr ? "" : name;
            return true;
        }
        case CommonProperty::Size:
            settings.size = g_value_get_uint64(value);
            return true;
        case CommonProperty::Node:
            settings.node = g_value_get_uint(value);
            return true;
        case CommonProperty::WakeUp:
            settings.wakeUp = static_cast<WakeUp>(g_value_get_enum(value));
            return true;
        default:
            return false;
    }
}

bool GetCommonProperty(const CommonSettings& settings, guint id, GValue* value) {
    switch (static_cast<CommonProperty>(id)) {
        case CommonProperty::Ring:
            g_value_set_string(value, settings.ring.empty() ? nullptr : settings.ring.c_str());
            return true;
        case CommonProperty::Size:
            g_value_set_uint64(value, settings.size);
            return true;
        case CommonProperty::Node:
            g_value_set_uint(value, settings.node);
            return true;
        case CommonProperty::WakeUp:
            g_value_set_enum(value, static_cast<int>(settings.wakeUp));
            return true;
        default:
            return false;
    }
}

void PostOpeningError(GstElement* element) {
    try {
        throw;
    } catch (const NodeTaken& error) {
        GST_ELEMENT_ERROR(element, RESOURCE, BUSY, ("%s", error.what()), (nullptr));
    } catch (const std::invalid_argument& error) {
        GST_ELEMENT_ERROR(element, RESOURCE, SETTINGS, ("%s", error.what()), (nullptr));
    } catch (const RingError& error) {
        if (error.Errno() == ENOSPC) {
            GST_ELEMENT_ERROR(element, RESOURCE, NO_SPACE_LEFT, ("%s", error.what()), (nullptr));
        } else {
            GST_ELEMENT_ERROR(element, RESOURCE, OPEN_READ_WRITE, ("%s", error.what()), (nullptr));
        }
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(element, RESOURCE, OPEN_READ_WRITE, ("%s", error.what()), (nullptr));
    }
}

void PostStats(GstElement* element, GstStructure* stats) {
    gst_element_post_message(element, gst_message_new_element(GST_OBJECT(element), stats));
}

}  // namespace qel
