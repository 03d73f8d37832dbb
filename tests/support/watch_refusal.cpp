#include "tests/support/watch_refusal.h"

#include <event2/event.h>

namespace qv::test {
bool g_no_watch = false;
}  // namespace qv::test

extern "C" {
int __real_event_add(event* watched, const timeval* timeout);
int __wrap_event_add(event* watched, const timeval* timeout) {
    return qv::test::g_no_watch ? -1 : __real_event_add(watched, timeout);
}
}
