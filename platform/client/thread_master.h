// A thread master (qv/thread.h) is an event loop under its C name.
#pragma once

#include "platform/base/event_loop.h"
#include "qv/thread.h"

namespace qv {

// Both only convert the pointer, which is valid as long as the loop. Any thread.
qv_thread_master* master_of(EventLoop& loop);
EventLoop& loop_of(qv_thread_master* master);

}  // namespace qv
