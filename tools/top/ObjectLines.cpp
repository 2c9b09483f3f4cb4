#include "ObjectLines.h"

#include <fmt/format.h>

#include <algorithm>

#include "Amounts.h"
#include "Text.h"

namespace qel {
namespace {

/// What is told of one object: its name has what the rest leaves of the room.
struct Item {
    std::string name;
    std::string rest;
};

std::string UsersText(const std::vector<ObjectUser>& users) {
    if (users.empty()) {
        return "nobody seen";
    }
    const std::string first = fmt::format("{} {}", users.front().pid, users.front().command);
    return users.size() == 1 ? first : fmt::format("{} +{}", first, users.size() - 1);
}

Lines LinesOf(const std::string& title, const std::vector<Item>& items, const RingLayout& layout) {
    if (items.empty()) {
        return {};
    }
    constexpr std::size_t kNarrowest = 64;
    const std::size_t columns = std::max<std::size_t>(1, layout.width / kNarrowest);
    const std::size_t width = std::max<std::size_t>(1, layout.width / columns);
    Lines lines{{{title, Ink::Title}}};
    for (std::size_t at = 0; at < items.size(); ++at) {
        if (at % columns == 0) {
            lines.emplace_back();
        }
        const std::string rest = Shown(items[at].rest, layout.charset);
        const std::size_t used = WidthOf(rest) + 5;  // with the gaps
        constexpr std::size_t kLeastName = 12;
        const std::size_t room = std::max(width > used ? width - used : 0, kLeastName);
        const std::string text =
            "  " + Left(Shown(OneLine(items[at].name), layout.charset), room) + "  " + rest;
        lines.back().push_back({Left(text, width - 1) + " "});
    }
    return lines;
}

}  // namespace

Lines BlockLines(const std::vector<BlockRow>& blocks, const NameFilter& isShown,
                 const RingLayout& layout) {
    std::vector<Item> items;
    for (const BlockRow& block : blocks) {
        if (isShown(block.name)) {
            const std::string size =
                block.size ? ShortBytes(static_cast<double>(*block.size)) : "?";
            items.push_back(
                {block.name, fmt::format("{}  {}  {}", Left(block.state, 12), Right(size, 5),
                                         Left(UsersText(block.users), 22))});
        }
    }
    return LinesOf("BLOCKS", items, layout);
}

Lines SemaphoreLines(const std::vector<SemaphoreRow>& semaphores, const NameFilter& isShown,
                     const RingLayout& layout) {
    std::vector<Item> items;
    for (const SemaphoreRow& semaphore : semaphores) {
        if (isShown(semaphore.name)) {
            const std::string value =
                !semaphore.trouble.empty() ? semaphore.trouble
                : semaphore.waiting == 0
                    ? fmt::format("value {}", semaphore.value)
                    : fmt::format("value {}, {} waiting", semaphore.value, semaphore.waiting);
            items.push_back({semaphore.name, fmt::format("{}  {}", Left(value, 19),
                                                         Left(UsersText(semaphore.users), 22))});
        }
    }
    return LinesOf("SEMAPHORES", items, layout);
}

}  // namespace qel
