// A directory for one test.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv::test {

// Creates a directory, and removes it with its content at the end.
class TemporaryDirectory {
 public:
    TemporaryDirectory() {
        char name[] = "/tmp/lda-test-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        path_ = name;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(file(name)) << text;
        return file(name);
    }
    std::vector<std::string> lines_of(const std::string& name) const {
        std::vector<std::string> lines;
        std::ifstream stream(file(name));
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

 private:
    std::string path_;
};

}  // namespace qv::test
