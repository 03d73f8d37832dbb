// NETCONF notifications. Main thread only.
#pragma once

#include <cstdint>

#include "qv/mom.h"

extern "C" {

// Value type codes.
inline constexpr int NC_LIB_TYPE_INT32 = 8;
inline constexpr int NC_LIB_TYPE_UINT32 = 20;

struct nc_lib_leaf {
    const char* path;  // full data path of the leaf, keys included
    int type;          // NC_LIB_TYPE_*
    uint32_t value;
};

// Sends one notification made of `count` leaves, in this order. Their paths begin with the same
// "/<module>:<notification>". It is published on the client's session with the local database, as
// the record `p_nc.notification` with the next number, and kept there for replay as one of the last
// 1,000. While the client still reads the numbers that an earlier process has used, it waits for
// the end of that. The arguments are copied. 0, or an error number (EINVAL: a bad argument;
// ENOTCONN: the session is down, and the notification is lost). `flags` is 0.
int nc_lib_notification_send(qv_mom_client* client, const nc_lib_leaf* leaves, int count,
                             int flags);

}  // extern "C"
