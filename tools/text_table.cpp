#include "text_table.h"

#include <algorithm>
#include <utility>

namespace tool {

void TextTable::column(const std::string& title, Align align) {
    columns.push_back({title, align});
}

void TextTable::row(std::vector<std::string> cells) {
    cells.resize(columns.size());
    rows.push_back(std::move(cells));
}

void TextTable::rule() {
    rows.emplace_back();
}

std::string TextTable::text() const {
    std::vector<size_t> widths;
    for (const Column& column : columns) widths.push_back(column.title.size());
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }

    std::string text;
    const auto add_line = [&](const auto& cell_of) {
        std::string line;
        for (size_t i = 0; i < columns.size(); ++i) {
            const std::string& cell = cell_of(i);
            const std::string blanks(widths[i] - cell.size(), ' ');
            if (i > 0) line += "  ";
            line += columns[i].align == right ? blanks + cell : cell + blanks;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    };
    const auto add_rule = [&] {
        size_t width = columns.empty() ? 0 : 2 * (columns.size() - 1);
        for (const size_t w : widths) width += w;
        text += std::string(width, '-') + '\n';
    };

    add_line([&](size_t i) -> const std::string& { return columns[i].title; });
    add_rule();
    for (const auto& row : rows) {
        if (row.empty()) {
            add_rule();
        } else {
            add_line([&](size_t i) -> const std::string& { return row[i]; });
        }
    }
    return text;
}

}  // namespace tool
