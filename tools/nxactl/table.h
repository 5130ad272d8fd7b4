// A plain text table with aligned columns, as nxactl prints its lists.
#pragma once

#include <ostream>
#include <string>
#include <vector>

// Rows of cells under a header row. Each column is as wide as its widest
// cell; columns are two spaces apart, text left-aligned and numbers
// right-aligned, and no line ends in spaces.
class Table {
public:
    enum class Align { left, right };
    struct Column {
        std::string title;
        Align align;
    };

    explicit Table(std::vector<Column> columns);

    // Adds a row of exactly one cell per column.
    void addRow(std::vector<std::string> cells);
    // Writes the header row and the rows, one line each.
    void print(std::ostream& out) const;

private:
    void printRow(std::ostream& out, std::vector<std::string> const& cells,
                  std::vector<std::size_t> const& widths) const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};
