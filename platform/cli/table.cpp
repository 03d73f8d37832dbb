#include "platform/cli/table.h"

#include <string>

#include "platform/cli/output_filter.h"
#include "qv/cli.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

std::string text_of(const Json& cell) {
    if (cell.is_null()) {
        return "-";
    }
    if (cell.is_boolean()) {
        return cell.get<bool>() ? "*" : "";
    }
    if (cell.is_array()) {
        std::string texts;
        for (const Json& text : cell) {
            texts.append(texts.empty() ? "" : "+").append(text.get<std::string>());
        }
        return texts.empty() ? "-" : texts;
    }
    return cell.is_string() ? cell.get<std::string>() : cell.dump();
}

void print_line(const std::vector<Column>& columns, const std::vector<std::string>& cells) {
    std::string line;
    for (size_t i = 0; i < columns.size(); ++i) {
        line += cells[i];
        const size_t width = static_cast<size_t>(columns[i].width);
        if (i + 1 < columns.size()) {
            line.append(cells[i].size() < width ? width - cells[i].size() : 0, ' ').append(" ");
        }
    }
    line.erase(line.find_last_not_of(' ') + 1);
    cli_printf("%s\n", line.c_str());
}

}  // namespace

Json Table::json() const {
    Json rows = Json::array();
    for (const auto& row : rows_) {
        Json& object = rows.emplace_back(Json::object());
        for (size_t i = 0; i < columns_.size(); ++i) {
            object[columns_[i].key] = row[i];
        }
    }
    return rows;
}

void Table::print() const {
    if (json_wanted()) {
        print_json(json());
        return;
    }
    std::vector<std::string> cells;
    for (const Column& column : columns_) {
        cells.emplace_back(column.heading);
    }
    print_line(columns_, cells);
    for (const auto& row : rows_) {
        cells.clear();
        for (const Json& cell : row) {
            cells.push_back(text_of(cell));
        }
        print_line(columns_, cells);
    }
}

}  // namespace qv::cli
