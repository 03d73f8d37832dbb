// The command line of lda-netconf.
#pragma once

#include <string>

namespace netconf {

struct Options {
    std::string redis_socket;                      // Unix socket of the object database
    std::string yang_dir;                          // folder of the YANG modules
    std::string runtime_dir = "/run/lda-netconf";  // files that the sessions share
    bool log_to_stderr = false;
    bool help = false;
};

// The socket comes from --redis, else from the platform file named with --platform or in the
// environment variable LDA_PLATFORM. Throws std::runtime_error with the reason.
Options read_options(int count, char* const* words);

// The text of --help.
std::string usage();

}  // namespace netconf
