#include "ObjectChoice.h"

#include <fnmatch.h>

#include <algorithm>
#include <utility>

namespace qel {

ChosenNames ChooseFrom(std::vector<std::string> names, const ObjectChoice& choice) {
    const auto isMeant = [&choice](const std::string& name) {
        return choice.patterns.empty() ||
               std::any_of(choice.patterns.begin(), choice.patterns.end(),
                           [&name](const std::string& pattern) {
                               return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
                           });
    };
    ChosenNames chosen{std::move(names)};
    chosen.names.erase(std::remove_if(chosen.names.begin(), chosen.names.end(),
                                      [&](const auto& name) { return !isMeant(name); }),
                       chosen.names.end());
    if (chosen.names.size() > choice.most) {
        chosen.leftOut = chosen.names.size() - choice.most;
        chosen.names.resize(choice.most);
    }
    return chosen;
}

}  // namespace qel
