// "show notifications", typed into a session.
#include <gtest/gtest.h>

#include <string>

#include "qv/mom.h"
#include "qv/netconf.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

// A service with a session in the local database.
qv_mom_client* connected_client(qv::test::CliRig& rig) {
    qv_mom_client* const client = qv_mom_client_init("TEST", rig.master, nullptr);
    qv_mom_client_connect(client, QV_MOM_LOCAL_DB, nullptr, nullptr);
    rig.platform.run_ready();
    return client;
}

TEST(ShowNotifications, SaysThatThereIsNone) {
    qv::test::CliRig rig;
    EXPECT_EQ(rig.type("show notifications"), "No notification has been sent.\n");
}

TEST(ShowNotifications, PrintsTheTimeAndTheLeavesByTheirType) {
    qv::test::CliRig rig;
    const nc_lib_leaf leaves[] = {
        {"/m:s/entry[name='swp1']/notify-type", NC_LIB_TYPE_UINT32, 4294967295},
        {"/m:s/entry[name='swp1']/src-port", NC_LIB_TYPE_INT32, 4294967295}};
    ASSERT_EQ(nc_lib_notification_send(connected_client(rig), leaves, 2, 0), 0);
    const std::string output = rig.type("show notif");
    const size_t end_of_time = output.find('\n');
    EXPECT_EQ(end_of_time, std::string("2026-01-31 23:59:59.123").size());
    EXPECT_EQ(output.substr(end_of_time + 1),
              "    /m:s/entry[name='swp1']/notify-type = 4294967295\n"
              "    /m:s/entry[name='swp1']/src-port = -1\n");
}

}  // namespace
