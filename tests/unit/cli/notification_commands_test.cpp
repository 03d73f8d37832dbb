// "show notifications", typed into a session.
#include <gtest/gtest.h>

#include <string>

#include "qv/netconf.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

qv_mom_client* some_client() {
    static char anything;
    return reinterpret_cast<qv_mom_client*>(&anything);
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
    ASSERT_EQ(nc_lib_notification_send(some_client(), leaves, 2, 0), 0);
    const std::string output = rig.type("show notif");
    const size_t end_of_time = output.find('\n');
    EXPECT_EQ(end_of_time, std::string("2026-01-31 23:59:59.123").size());
    EXPECT_EQ(output.substr(end_of_time + 1),
              "    /m:s/entry[name='swp1']/notify-type = 4294967295\n"
              "    /m:s/entry[name='swp1']/src-port = -1\n");
}

}  // namespace
