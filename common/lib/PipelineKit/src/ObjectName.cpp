#include "ObjectName.h"

#include <stdexcept>
#include <string>

namespace qel {

void RequireObjectName(std::string_view kind, std::string_view name, std::size_t longest) {
    const std::string subject = "the name of a " + std::string(kind);
    if (name.empty()) {
        throw std::invalid_argument(subject + " must not be empty");
    }
    if (name.find('/') != std::string_view::npos) {
        throw std::invalid_argument(subject + " must not contain a slash: " + std::string(name));
    }
    if (name.size() > longest) {
        throw std::invalid_argument(subject + " has at most " + std::to_string(longest) +
                                    " characters, not " + std::to_string(name.size()));
    }
}

}  // namespace qel
