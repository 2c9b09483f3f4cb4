#pragma once

#include <exception>
#include <stdexcept>
#include <string>
#include <typeinfo>

namespace qel::test {

/// The text of the exception that `action` throws. It must be of exactly the type `Exception`; of
/// another, the type is shown ahead of the text.
template <typename Exception = std::runtime_error, typename Action>
std::string Thrown(const Action& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return typeid(error) == typeid(Exception)
                   ? error.what()
                   : std::string(typeid(error).name()) + " " + error.what();
    }
    return "nothing thrown";
}

}  // namespace qel::test
