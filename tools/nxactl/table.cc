#include "table.h"

#include <algorithm>
#include <stdexcept>

Table::Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

void Table::addRow(std::vector<std::string> cells) {
    if (cells.size() != columns_.size()) throw std::logic_error("a table row with the wrong number of cells");
    rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
    std::vector<std::string> header;
    std::vector<std::size_t> widths;
    for (Column const& column : columns_) {
        header.push_back(column.title);
        widths.push_back(column.title.size());
    }
    for (auto const& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    printRow(out, header, widths);
    for (auto const& row : rows_) printRow(out, row, widths);
}

void Table::printRow(std::ostream& out, std::vector<std::string> const& cells,
                     std::vector<std::size_t> const& widths) const {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        std::string const padding(widths[i] - cells[i].size(), ' ');
        if (i > 0) line += "  ";
        line += columns_[i].align == Align::right ? padding + cells[i] : cells[i] + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << "\n";
}
