#pragma once

#include <cstring>
#include <exception>
#include <ostream>
#include <string>
#include <typeinfo>

namespace qel::test {

/// What an action has thrown: the exact type and the text.
struct Failure {
    std::string type;
    std::string text;

    bool operator==(const Failure& other) const { return type == other.type && text == other.text; }
};

inline std::ostream& operator<<(std::ostream& stream, const Failure& failure) {
    return stream << failure.type << " \"" << failure.text << "\"";
}

template <typename Exception>
Failure FailureOf(const std::string& text) {
    return {typeid(Exception).name(), text};
}

/// What `action` throws; of type "nothing" if it returns.
template <typename Action>
Failure Thrown(Action action) {
    try {
        action();
    } catch (const std::exception& error) {
        return {typeid(error).name(), error.what()};
    }
    return {"nothing", ""};
}

}  // namespace qel::test
