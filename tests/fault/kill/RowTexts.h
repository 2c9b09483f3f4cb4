#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Deaths.h"
#include "Examination.h"
#include "Traffic.h"

namespace qel::test {

/// What a number of bytes is called, as "L".
using Amounts = std::vector<std::pair<std::string, std::uint64_t>>;

/// What has changed in the fields that operations use, as "`avail[0]` + L".
using Changes = std::vector<std::string>;
/// @param node  the dead one, whose fields are those of n
Changes Compare(const RingImage::Bytes& before, const RingImage::Bytes& after, std::uint8_t node,
                const Amounts& amounts);

/// What one death was found to do.
struct Measured {
    Findings findings;
    Sights sights;
    std::optional<Changes> changes;  ///< by putting it right, where only that changes anything
};

/// The rows of the table, each put together from many deaths. Those of a row must agree.
class RowTexts {
public:
    void Add(const std::string& operation, const std::string& step, bool isSink, bool hasLimit,
             const Measured& measured);
    [[nodiscard]] std::vector<Row> Rows() const;

private:
    struct Entry {
        std::string operation;
        std::string step;
        bool isSink;
        std::optional<Measured> plain;
        std::optional<Measured> limited;
    };
    static Row Combine(const Entry& entry);

    std::vector<Entry> entries_;
};

}  // namespace qel::test
