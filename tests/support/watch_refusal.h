// Makes event loops refuse to watch anything: for executables that are linked with
// --wrap=event_add.
#pragma once

namespace qv::test {

extern bool g_no_watch;  // while set, libevent's event_add() fails

}  // namespace qv::test
