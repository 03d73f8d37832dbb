// The command line of lda-netconf.
#pragma once

#include <string>

#include "platform/base/redis_server.h"

namespace netconf {

struct Options {
    qv::RedisServer redis;    // the object database
    std::string yang_dir;     // folder of the YANG modules
    std::string runtime_dir;  // files that the sessions share
    std::string write_group;  // of users who may change the configuration; empty: all of them
    bool log_to_stderr = false;
    bool help = false;
};

// The group comes from the platform file named with --platform or in the environment variable
// LDA_PLATFORM, socket and shared folder from --redis and --runtime or else from that file. Throws
// std::runtime_error with the reason.
Options read_options(int count, char* const* words);

// The text of --help.
std::string usage();

}  // namespace netconf
