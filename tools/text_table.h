// Columns of text, aligned.
#pragma once

#include <string>
#include <vector>

namespace tool {

class TextTable {
public:
    enum Align { left, right };

    /// Adds a column; all columns come before the first row.
    void column(const std::string& title, Align align);
    /// One text for each column.
    void row(std::vector<std::string> cells);
    /// A rule between the rows before and after.
    void rule();
    /// The title row and the rows, two blanks between columns, no blanks at the ends of lines.
    std::string text() const;

private:
    struct Column {
        std::string title;
        Align align;
    };
    std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;  ///< an empty one is a rule
};

}  // namespace tool
