#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <string>

#include "StreamNode.h"

namespace qel {

inline constexpr std::uint64_t kDefaultRingSize = 64 << 20;

/// The type of the property "wakeup" of both elements.
[[nodiscard]] GType WakeUpType();

/// Name of the ring that an element uses: the property "ring" if it is set, else the element's own
/// name.
/// @throws std::invalid_argument if neither has been chosen by the user
[[nodiscard]] std::string RingNameOf(GstObject* element, const std::string& ring);

/// Adds the properties that both elements have, with identifiers from `first` on.
enum class CommonProperty : guint { Ring = 1, Size, Node, WakeUp, Stats, Own };
inline constexpr auto kFirstOwnProperty = static_cast<guint>(CommonProperty::Own);

/// What distinguishes the common properties of the two elements.
struct CommonLimits {
    const char* sizeText;
    std::uint64_t defaultSize;
    const char* nodeText;
    guint firstNode;
    guint lastNode;
};

void InstallCommonProperties(GObjectClass* objectClass, const CommonLimits& limits);

/// The common settings of an element, as its user sets them.
struct CommonSettings {
    std::string ring;
    std::uint64_t size = 0;
    guint node = 0;
    WakeUp wakeUp = WakeUp::Semaphore;
};

/// @return false for a property that is not a common one
bool SetCommonProperty(CommonSettings& settings, guint id, const GValue* value);
bool GetCommonProperty(const CommonSettings& settings, guint id, GValue* value);

/// Posts an element error for what opening a stream has thrown; to be called while it is handled.
void PostOpeningError(GstElement* element);

/// Posts the statistics as an element message.
void PostStats(GstElement* element, GstStructure* stats);

/// Name of the statistics' structure and message.
inline constexpr const char* kStatsName = "qev-stats";

}  // namespace qel
