#include "RowTexts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace qel::test {
namespace {

struct Field {
    std::string name;
    std::size_t offset;
    std::size_t size;
    bool isIndex;
};

std::vector<Field> Fields(std::uint8_t node) {
    std::vector<Field> fields;
    const auto add = [&](const std::string& name, std::size_t offset, bool byNode) {
        for (std::size_t index = 0; index < kMaxNodes; ++index) {
            const std::string text = !byNode || node == 0 || index == 0 ? std::to_string(index)
                                     : index == node                    ? "n"
                                     : index == node + 1U               ? "n + 1"
                                                                        : std::to_string(index);
            fields.push_back({name + "[" + text + "]", offset + index * sizeof(std::uint64_t),
                              sizeof(std::uint64_t), name != "avail"});
        }
    };
    add("avail", offsetof(ControlBlock, avail), true);
    add("wIdx", offsetof(ControlBlock, wIdx), false);
    add("rIdx", offsetof(ControlBlock, rIdx), true);
    constexpr std::size_t kHalf = sizeof(std::uint32_t);
    fields.push_back({"numPackets", offsetof(ControlBlock, numPackets), kHalf, false});
    fields.push_back({"maxPackets", offsetof(ControlBlock, maxPackets), kHalf, false});
    return fields;
}

std::uint64_t ValueOf(const Field& field, const RingImage::Bytes& bytes) {
    std::uint64_t value = 0;
    std::memcpy(&value, bytes.data() + field.offset, field.size);
    return value;
}

/// "+ L"; an index goes round the ring.
std::string ChangeText(const Field& field, std::uint64_t before, std::uint64_t after,
                       std::uint64_t size, const Amounts& amounts) {
    const auto isBeyond = [&](std::uint64_t from, std::uint64_t amount, std::uint64_t to) {
        return amount != 0 && (field.isIndex ? (from + amount) % size == to : from + amount == to);
    };
    for (const auto& [name, amount] : amounts) {
        if (isBeyond(before, amount, after)) {
            return " + " + name;
        }
        if (isBeyond(after, amount, before)) {
            return " − " + name;
        }
    }
    return after > before ? " + " + std::to_string(after - before)
                          : " − " + std::to_string(before - after);
}

std::string Join(const std::vector<std::string>& texts, const std::string& none) {
    std::string joined;
    for (const std::string& text : texts) {
        joined += (joined.empty() ? "" : ", ") + text;
    }
    return joined.empty() ? none : joined;
}

/// What `all` has beside `some`, which it must contain.
template <typename Texts>
Texts Beyond(const Texts& all, const Texts& some) {
    Texts rest;
    for (const auto& text : all) {
        if (std::find(some.begin(), some.end(), text) == some.end()) {
            rest.push_back(text);
        }
    }
    EXPECT_EQ(all.size(), rest.size() + some.size());
    return rest;
}

void Merge(std::optional<Measured>& known, const Measured& measured) {
    if (!known) {
        known = measured;
        return;
    }
    EXPECT_TRUE(known->findings == measured.findings) << "the same step leaves different things";
    known->sights |= measured.sights;
    if (known->changes && measured.changes) {
        EXPECT_EQ(*known->changes, *measured.changes) << "the same step is put right differently";
    } else if (measured.changes) {
        known->changes = measured.changes;
    }
}

using Words = std::vector<std::string>;

Words LeftWords(const Measured& measured) {
    Words words;
    for (const Finding finding : measured.findings) {
        words.push_back(LeftText(finding));
    }
    return words;
}

Words SeeWords(const Measured& measured, bool isSink) {
    Words words;
    for (const Finding finding : measured.findings) {
        words.push_back(SeeText(finding, isSink));
    }
    return words;
}

/// One text for rings without and with a limit.
std::string Both(const Words& plain, const Words& limited, const std::string& none) {
    const Words more = Beyond(limited, plain);
    if (more.empty()) {
        return Join(plain, none);
    }
    return (plain.empty() ? "" : Join(plain, none) + "; ") + "with a packet limit " +
           (plain.empty() ? "" : "also ") + Join(more, none);
}

}  // namespace

Changes Compare(const RingImage::Bytes& before, const RingImage::Bytes& after, std::uint8_t node,
                const Amounts& amounts) {
    Changes changes;
    for (const Field& field : Fields(node)) {
        const std::uint64_t was = ValueOf(field, before);
        const std::uint64_t is = ValueOf(field, after);
        if (was != is) {
            changes.push_back(
                "`" + field.name + "`" +
                ChangeText(field, was, is, before.size() - sizeof(ControlBlock), amounts));
        }
    }
    return changes;
}

void RowTexts::Add(const std::string& operation, const std::string& step, bool isSink,
                   bool hasLimit, const Measured& measured) {
    auto entry = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& other) {
        return other.operation == operation && other.step == step;
    });
    if (entry == entries_.end()) {
        entries_.push_back({operation, step, isSink, {}, {}});
        entry = entries_.end() - 1;
    }
    Merge(hasLimit ? entry->limited : entry->plain, measured);
}

Row RowTexts::Combine(const Entry& entry) {
    SCOPED_TRACE(entry.operation + ", " + entry.step);
    Row row{entry.operation, entry.step, {}, {}, {}, {}};
    EXPECT_TRUE(entry.limited);
    const Measured& limited = entry.limited ? *entry.limited : *entry.plain;
    const Measured& plain = entry.plain ? *entry.plain : limited;
    if (!entry.plain) {
        row.step += " (with a packet limit)";
    }
    row.left = Both(LeftWords(plain), LeftWords(limited), "nothing");
    row.see = Both(SeeWords(plain, entry.isSink), SeeWords(limited, entry.isSink), "—");
    row.sight = Both(plain.sights.Words(), limited.sights.Words(), "nothing");
    EXPECT_TRUE(plain.changes && limited.changes);
    row.putRight =
        Both(plain.changes.value_or(Changes()), limited.changes.value_or(Changes()), "—");
    return row;
}

std::vector<Row> RowTexts::Rows() const {
    std::vector<Row> rows;
    for (const Entry& entry : entries_) {
        rows.push_back(Combine(entry));
    }
    return rows;
}

}  // namespace qel::test
