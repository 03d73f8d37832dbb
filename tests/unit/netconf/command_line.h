// Calls of functions that take a command line as main() does.
#pragma once

#include <string>
#include <vector>

#include <getopt.h>

namespace netconf::test {

// The result of `call` with the command line "lda-netconf" and `words`.
template <typename Call>
auto with_command_line(std::vector<std::string> words, Call call) {
    words.insert(words.begin(), "lda-netconf");
    std::vector<char*> raw;
    for (std::string& word : words) {
        raw.push_back(word.data());
    }
    raw.push_back(nullptr);
    optind = 0;  // restarts getopt
    return call(static_cast<int>(words.size()), raw.data());
}

}  // namespace netconf::test
