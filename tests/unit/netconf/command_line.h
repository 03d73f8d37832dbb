// Calls of functions that take a command line as main() does.
#pragma once

#include <string>
#include <vector>

#include <getopt.h>

namespace netconf::test {

// The result of `call`, given the arguments of "lda-netconf" followed by `words`.
template <typename Call>
auto with_command_line(std::vector<std::string> words, Call call) {
    words.insert(words.begin(), "lda-netconf");
    std::vector<char*> raw;
    for (std::string& word : words) {
        raw.push_back(word.data());
    }
    raw.push_back(nullptr);
    optind = 0;  // getopt starts anew
    return call(static_cast<int>(words.size()), raw.data());
}

}  // namespace netconf::test
