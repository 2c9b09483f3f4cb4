#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Snapshot.h"

namespace qel {

enum class Order { Name, Rate, Fill, Latency };

[[nodiscard]] const char* NameOf(Order order);

/// What a key asks for.
struct Key {
    enum class Kind {
        Character,  ///< one that is typed: see `character`
        Up,
        Down,
        PageUp,
        PageDown,
        Home,
        End,
        Enter,
        Escape,
        Erase,
    };
    Kind kind = Kind::Character;
    char character = '\0';
};

/// What the live view shows of a snapshot, as the keys have it.
struct TopState {
    enum class View { List, Details, Help };

    Order order = Order::Name;
    std::string filter{};  ///< part of the names that are shown
    bool edits = false;    ///< the filter is being typed
    bool isPaused = false;
    bool quits = false;
    View view = View::List;
    std::string selected{};     ///< name of a ring; the first one if there is none of this name
    std::size_t scrolled = 0;   ///< lines above the shown ones
    std::size_t pageLines = 1;  ///< lines that fit, as they were last drawn
    bool follows = true;        ///< the selected ring is to be in sight
};

/// The rings that are shown, in order.
[[nodiscard]] std::vector<const RingRow*> ShownRings(const Snapshot& snapshot,
                                                     const TopState& state);

/// True if the filter lets an object of this name be shown.
[[nodiscard]] bool IsShown(const std::string& name, const TopState& state);

/// Place of the selected ring among the shown ones; 0 if it is not among them.
[[nodiscard]] std::size_t PlaceOfSelected(const std::vector<const RingRow*>& rings,
                                          const TopState& state);

void Press(TopState& state, const Key& key, const Snapshot& snapshot);

}  // namespace qel
