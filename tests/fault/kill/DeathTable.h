#pragma once

#include <string>
#include <vector>

#include "Deaths.h"

namespace qel::test {

/// The table of deaths in the documentation.
class DeathTable {
public:
    /// @param path  the document that has it between its marks
    explicit DeathTable(std::string path);

    /// The lines between the marks.
    [[nodiscard]] std::string Text() const;
    /// Puts `text` between the marks.
    void Replace(const std::string& text) const;
    [[nodiscard]] std::vector<Row> Rows() const;

    /// As Text has it.
    static std::string Format(const std::vector<Row>& rows);

private:
    struct Parts {
        std::string before;
        std::string table;
        std::string after;
    };
    [[nodiscard]] Parts Read() const;

    std::string path_;
};

}  // namespace qel::test
