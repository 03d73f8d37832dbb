#include "tests/support/golden/golden.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

namespace {

using Lines = std::vector<std::string>;

std::filesystem::path path_in(const char* folder, std::string_view name) {
    return std::filesystem::path(folder) / (std::string(name) + ".txt");
}

std::optional<Lines> read(const std::filesystem::path& path) {
    std::ifstream text(path);
    if (!text) {
        return std::nullopt;
    }
    Lines lines;
    for (std::string line; std::getline(text, line);) {
        if (!line.starts_with('#')) {
            lines.push_back(line);
        }
    }
    return lines;
}

void write(const std::filesystem::path& path, const Lines& lines) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream text(path);
    for (const std::string& line : lines) {
        text << line << '\n';
    }
}

// The lines between the first and the last difference, the expected ones with '-' in front, the
// actual ones with '+', below the line in front of them.
std::string difference(const Lines& expected, const Lines& actual) {
    const auto [expected_from, actual_from] =
        std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    const auto [expected_to, actual_to] =
        std::mismatch(expected.rbegin(), std::make_reverse_iterator(expected_from), actual.rbegin(),
                      std::make_reverse_iterator(actual_from));
    std::string text;
    if (expected_from != expected.begin()) {
        text += " " + *std::prev(expected_from) + "\n";
    }
    std::for_each(expected_from, expected_to.base(),
                  [&](const std::string& line) { text += "-" + line + "\n"; });
    std::for_each(actual_from, actual_to.base(),
                  [&](const std::string& line) { text += "+" + line + "\n"; });
    return text;
}

}  // namespace

std::vector<std::string> golden_lines(std::string_view name) {
    const std::filesystem::path path = path_in(GOLDEN_FOLDER, name);
    const std::optional<Lines> lines = read(path);
    if (!lines) {
        ADD_FAILURE() << "cannot read " << path;
    }
    return lines.value_or(Lines{});
}

void expect_golden(std::string_view name, const std::vector<std::string>& actual, const char* file,
                   int line) {
    const std::filesystem::path path = path_in(GOLDEN_FOLDER, name);
    const std::optional<Lines> expected = read(path);
    if (expected == actual) {
        return;
    }
    const std::filesystem::path actual_path = path_in(GOLDEN_ACTUAL_FOLDER, name);
    write(actual_path, actual);
    ADD_FAILURE_AT(file, line) << (expected ? "" : "there is no ") << path.string() << "\n"
                               << difference(expected.value_or(Lines{}), actual)
                               << "All actual lines are in " << actual_path.string();
}
