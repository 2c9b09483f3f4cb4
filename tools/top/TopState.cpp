#include "TopState.h"

#include <algorithm>
#include <array>

namespace qel {
namespace {

double RateOf(const RingRow& ring) {
    return ring.nodes.empty() ? 0 : ring.nodes.front().figures.bytesPerSecond;
}

double LatencyOf(const RingRow& ring) {
    double sum = 0;
    for (const NodeRow& node : ring.nodes) {
        sum += node.latency.value_or(0);
    }
    return sum;
}

/// The larger, the further up.
double WeightOf(const RingRow& ring, Order order) {
    switch (order) {
        case Order::Rate:
            return RateOf(ring);
        case Order::Fill:
            return ring.figures.fill;
        case Order::Latency:
            return LatencyOf(ring);
        case Order::Name:
            break;
    }
    return 0;
}

void Select(TopState& state, const std::vector<const RingRow*>& rings, std::size_t place) {
    if (!rings.empty()) {
        state.selected = rings[std::min(place, rings.size() - 1)]->name;
    }
    state.follows = true;
}

/// Where it begins; it may have several bytes.
std::size_t LastCharacter(const std::string& text) {
    constexpr unsigned kMask = 0xC0;
    constexpr unsigned kContinuation = 0x80;
    std::size_t place = text.size();
    while (place > 0 && (static_cast<unsigned char>(text[--place]) & kMask) == kContinuation) {
    }
    return place;
}

void Type(TopState& state, const Key& key) {
    switch (key.kind) {
        case Key::Kind::Character:
            state.filter += key.character;
            break;
        case Key::Kind::Erase:
            state.filter.erase(LastCharacter(state.filter));
            break;
        case Key::Kind::Escape:
            state.filter.clear();
            state.edits = false;
            break;
        case Key::Kind::Enter:
            state.edits = false;
            break;
        default:
            break;
    }
}

void Command(TopState& state, char character) {
    constexpr std::array kOrders{Order::Name, Order::Rate, Order::Fill, Order::Latency};
    switch (character) {
        case 'q':
            state.quits = true;
            break;
        case ' ':
        case 'p':
            state.isPaused = !state.isPaused;
            break;
        case '?':
        case 'h':
            state.view = TopState::View::Help;
            state.scrolled = 0;
            break;
        case '/':
            state.edits = true;
            break;
        case 's':
            state.order = kOrders.at((static_cast<std::size_t>(state.order) + 1) % kOrders.size());
            break;
        case 'n':
        case 'r':
        case 'f':
        case 'l':
            state.order = *std::find_if(kOrders.begin(), kOrders.end(),
                                        [&](Order order) { return NameOf(order)[0] == character; });
            break;
        default:
            break;
    }
}

void Scroll(TopState& state, bool isDown, std::size_t lines) {
    state.follows = false;
    state.scrolled =
        isDown ? state.scrolled + lines : state.scrolled - std::min(state.scrolled, lines);
}

void Leave(TopState& state) {
    if (state.view == TopState::View::List) {
        state.filter.clear();
    }
    state.view = TopState::View::List;
    state.follows = true;
}

void Move(TopState& state, const Key& key, const std::vector<const RingRow*>& rings) {
    const bool isList = state.view == TopState::View::List;
    const std::size_t place = PlaceOfSelected(rings, state);
    switch (key.kind) {
        case Key::Kind::Up:
            return isList ? Select(state, rings, place - std::min<std::size_t>(place, 1))
                          : Scroll(state, false, 1);
        case Key::Kind::Down:
            // Behind the last ring there is more.
            return isList && place + 1 < rings.size() ? Select(state, rings, place + 1)
                                                      : Scroll(state, true, 1);
        case Key::Kind::PageUp:
            return Scroll(state, false, state.pageLines);
        case Key::Kind::PageDown:
            return Scroll(state, true, state.pageLines);
        case Key::Kind::Home:
            return isList ? Select(state, rings, 0) : Scroll(state, false, state.scrolled);
        case Key::Kind::End:
            return isList ? Select(state, rings, rings.size()) : Scroll(state, true, 1000);
        default:
            return;
    }
}

}  // namespace

const char* NameOf(Order order) {
    constexpr std::array kNames{"name", "rate", "fill", "latency"};
    return kNames.at(static_cast<std::size_t>(order));
}

bool IsShown(const std::string& name, const TopState& state) {
    return name.find(state.filter) != std::string::npos;
}

std::vector<const RingRow*> ShownRings(const Snapshot& snapshot, const TopState& state) {
    std::vector<const RingRow*> rings;
    for (const RingRow& ring : snapshot.rings) {
        if (IsShown(ring.name, state)) {
            rings.push_back(&ring);
        }
    }
    std::stable_sort(rings.begin(), rings.end(), [&](const RingRow* left, const RingRow* right) {
        return WeightOf(*left, state.order) > WeightOf(*right, state.order);
    });
    return rings;
}

std::size_t PlaceOfSelected(const std::vector<const RingRow*>& rings, const TopState& state) {
    const auto found = std::find_if(rings.begin(), rings.end(), [&](const RingRow* ring) {
        return ring->name == state.selected;
    });
    return found == rings.end() ? 0 : static_cast<std::size_t>(found - rings.begin());
}

void Press(TopState& state, const Key& key, const Snapshot& snapshot) {
    if (state.edits) {
        Type(state, key);
        return;
    }
    const auto rings = ShownRings(snapshot, state);
    switch (key.kind) {
        case Key::Kind::Character:
            Command(state, key.character);
            return;
        case Key::Kind::Escape:
        case Key::Kind::Erase:
            Leave(state);
            return;
        case Key::Kind::Enter:
            if (state.view == TopState::View::List && !rings.empty()) {
                Select(state, rings, PlaceOfSelected(rings, state));
                state.view = TopState::View::Details;
                state.scrolled = 0;
            } else {
                Leave(state);
            }
            return;
        default:
            Move(state, key, rings);
    }
}

}  // namespace qel
