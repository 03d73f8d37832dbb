// The output of a show command that has rows: a text table, or JSON behind "| json". Loop thread
// only.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

namespace qv::cli {

struct Column {
    const char* key;      // in JSON
    const char* heading;  // in text
    int width;            // in text, at least
};

class Table {
 public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // One cell for each column: texts, numbers, null for what does not apply ("-" in text), a
    // boolean (in text "*" or nothing), or an array of texts (in text joined by "+", "-" when it is
    // empty).
    void add(std::vector<nlohmann::ordered_json> cells) { rows_.push_back(std::move(cells)); }

    bool empty() const { return rows_.empty(); }

    // Headings and rows, or a JSON array with an object for each row.
    void print() const;

    // That array, for an answer that has more than the rows.
    nlohmann::ordered_json json() const;

 private:
    const std::vector<Column> columns_;
    std::vector<std::vector<nlohmann::ordered_json>> rows_;
};

}  // namespace qv::cli
