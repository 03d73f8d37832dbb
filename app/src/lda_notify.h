// Publication of a loop and of its end: the NETCONF notification, and the loop entry
// (p_app.lda_loop_entry) in the application database. Main thread; reads the records only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lda_msg.h"

// Kinds of a loop notification.
inline constexpr uint32_t LDA_NOTIFY_LOOP = 1;
inline constexpr uint32_t LDA_NOTIFY_CLEAR = 2;

// The content of a loop notification.
struct lda_notify_t {
    uint32_t notify_type;       // LDA_NOTIFY_*
    uint32_t vid;               // always 0
    char name[LDA_NAME_BYTES];  // short interface name
    uint32_t ifx;               // not sent
    uint32_t policy;            // 1 when the current policy shuts the port down, else 0
    uint32_t src_port;          // 1 when the port's mode is access or hybrid, else 0
};
static_assert(sizeof(lda_notify_t) == 84 && offsetof(lda_notify_t, policy) == 76);

// Notifies a loop (LDA_NOTIFY_LOOP) or its end (LDA_NOTIFY_CLEAR) and publishes or withdraws the
// port's loop entry. Other kinds do nothing.
void lda_loop_result_send_ntf(uint32_t kind, lda_intf_t* record);

// Sends one notification. A failure is logged. Returns 0.
int lda_send_info_ntf(const lda_notify_t* record);

// Publish and withdraw the entry of a looped port; withdraw all of them. 0, or -1 when the
// database refuses.
int lda_mom_set_loop_entry(lda_intf_t* record);
int lda_mom_del_loop_entry(lda_intf_t* record);
int lda_mom_del_all_loop_entry(void);
