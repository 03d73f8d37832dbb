// How often invalid records of other programs are logged: once a second, for all clients of the
// process together. Loop thread only.
#pragma once

namespace qv {

// Whether an invalid record or notice may have a line in the system log now. After a line it is
// false for a second; the records of that second are counted, and their number is logged at its
// end, which begins the next second without lines.
bool may_log_bad_record();

}  // namespace qv
