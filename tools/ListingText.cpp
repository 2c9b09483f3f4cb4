#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "Listing.h"
#include "Text.h"
#include "UserText.h"
#include "UsersJson.h"

namespace qel {
namespace {

constexpr const char* kLine = "{:<9}  {:<{}}  {:<{}}  {:>10}  {:>5}  {:>12}  {:>8}  {}\n";

std::string UsersOf(const ListedObject& object) {
    if (!object.trouble.empty()) {
        return OneLine(object.trouble);
    }
    std::string text;
    for (const ObjectUser& user : object.users) {
        text += (text.empty() ? "" : ", ") + UserText(user);
    }
    return text.empty() ? "-" : text;
}

/// Of the columns whose texts have any length.
struct Widths {
    std::size_t name = std::string_view("NAME").size();
    std::size_t state = std::string_view("STATE").size();
};

std::string Line(const ListedObject& object, const Widths& widths) {
    constexpr double kPercent = 100;
    return fmt::format(kLine, object.kind, OneLine(object.name), widths.name, object.state,
                       widths.state,
                       object.size ? BytesText(static_cast<double>(*object.size)) : "-",
                       object.fill ? fmt::format("{:.0f} %", *object.fill * kPercent) : "-",
                       object.content.empty() ? "-" : object.content,
                       object.age ? AgeText(*object.age) : "-", UsersOf(object));
}

std::string Hidden(const Listing& listing) {
    std::string text;
    if (listing.hiddenProcesses > 0) {
        text = fmt::format("{} hidden from this user: what they use is not known\n",
                           listing.hiddenProcesses == 1
                               ? "1 process is"
                               : fmt::format("{} processes are", listing.hiddenProcesses));
    }
    if (!listing.listsAllProcesses) {
        text += "/proc does not list all processes to this user: what others use is not known\n";
    }
    return text;
}

}  // namespace

std::string TextOf(const Listing& listing) {
    if (listing.objects.empty()) {
        return "there are no rings, blocks or semaphores\n" + Hidden(listing);
    }
    Widths widths;
    for (const ListedObject& object : listing.objects) {
        widths.name = std::max(widths.name, OneLine(object.name).size());
        widths.state = std::max(widths.state, object.state.size());
    }
    std::string text = fmt::format(kLine, "KIND", "NAME", widths.name, "STATE", widths.state,
                                   "SIZE", "FILL", "CONTENT", "AGE", "USED BY");
    for (const ListedObject& object : listing.objects) {
        text += Line(object, widths);
    }
    return text + Hidden(listing);
}

std::string JsonOf(const Listing& listing) {
    nlohmann::ordered_json json{{"objects", nlohmann::ordered_json::array()},
                                {"hiddenProcesses", listing.hiddenProcesses},
                                {"listsAllProcesses", listing.listsAllProcesses}};
    for (const ListedObject& object : listing.objects) {
        nlohmann::ordered_json entry{
            {"kind", object.kind}, {"name", object.name}, {"state", object.state}};
        if (!object.trouble.empty()) {
            entry["trouble"] = object.trouble;
        }
        if (object.size) {
            entry["size"] = *object.size;
        }
        if (object.fill) {
            entry["fill"] = *object.fill;
        }
        if (!object.content.empty()) {
            entry["content"] = object.content;
        }
        if (object.age) {
            entry["age"] = *object.age;
        }
        entry["users"] = JsonOfUsers(object.users);
        json["objects"].push_back(std::move(entry));
    }
    return TextOfJson(json);
}

}  // namespace qel
