// Redundancy service and process supervision. Main thread only.
#pragma once

#include <cstdint>

#include "qv/mom.h"
#include "qv/thread.h"

extern "C" {

// Its result is ignored. A process that has taken the master role keeps it until it ends.
using rdnd_role_cb = int (*)(void);

// A process as the redundancy service knows it. Copied during the call.
struct rdnd_reg {
    qv_thread_master* master;
    const char* module;
    qv_mom_client* mom;
    rdnd_role_cb master_cb;  // called through the master when this board takes the master role
    rdnd_role_cb switch_cb;  // for the other role; never called
    uint32_t reserved[2];    // 0
    uint32_t flags;
    const uint32_t* dbs;  // object databases the process uses
    uint32_t db_num;
};

// Registers the process. `master_cb` is called at most once, through the loop. 0 or an error number
// (EALREADY: registered before). In role mode "solo" a process that finds another master on its
// bridge or socket ends with the reason on standard error.
int rdnd_lib_mom_reg(const rdnd_reg* reg);

inline constexpr int APP_PUBLIC_NAME_BYTES = 16;

struct app_public_instance {
    char name[APP_PUBLIC_NAME_BYTES];  // NUL-terminated
};

// Announces the process to the supervision. 0, or an error number.
int app_public_instance_init(const app_public_instance* instance);

// From now on reports regularly from the loop of `master` that the process is alive, if its
// supervisor asks for that. The process counts as ready once its configuration is applied, or once
// it stands by for the master.
void app_public_init_dead_detection(qv_thread_master* master);

}  // extern "C"
