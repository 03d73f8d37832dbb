#include "qv/netconf.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "platform/client/notification_ring.h"
#include "qv/mom.h"
#include "qv/thread.h"
#include "tests/support/test_platform.h"

namespace qv {
namespace {

class Notification : public testing::Test {
 protected:
    Notification() : master(qv_thread_master_create()) {
        client = qv_mom_client_init("TEST", master, nullptr);
        qv_mom_client_connect(client, QV_MOM_LOCAL_DB, nullptr, nullptr);
        platform.run_ready();
    }
    // The client stays, as all clients do, but its loop is gone.
    ~Notification() override { qv_thread_master_finish(master); }

    int send(const std::vector<nc_lib_leaf>& leaves) {
        return nc_lib_notification_send(client, leaves.data(), static_cast<int>(leaves.size()), 0);
    }

    test::TestPlatform platform;
    qv_thread_master* const master;
    qv_mom_client* client;
};

TEST_F(Notification, LeavesAreKeptInTheirOrder) {
    std::string path = "/m:state/entry[name='swp1']/notify-type";
    EXPECT_EQ(send({{path.c_str(), NC_LIB_TYPE_UINT32, 1},
                    {"/m:state/entry[name='swp1']/src-port", NC_LIB_TYPE_INT32, 0}}),
              0);
    path = "overwritten by the caller";
    const std::vector<SentNotification> sent = recent_notifications();
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(sent[0].leaves.size(), 2u);
    EXPECT_EQ(sent[0].leaves[0].path, "/m:state/entry[name='swp1']/notify-type");
    EXPECT_EQ(sent[0].leaves[0].type, 20);
    EXPECT_EQ(sent[0].leaves[0].value, 1u);
    EXPECT_EQ(sent[0].leaves[1].path, "/m:state/entry[name='swp1']/src-port");
    EXPECT_EQ(sent[0].leaves[1].type, 8);
}

TEST_F(Notification, RingKeepsTheLastSixtyFour) {
    for (uint32_t i = 0; i < 100; ++i) {
        ASSERT_EQ(send({{"/m:leaf", NC_LIB_TYPE_UINT32, i}}), 0);
    }
    const std::vector<SentNotification> sent = recent_notifications();
    ASSERT_EQ(sent.size(), 64u);
    EXPECT_EQ(sent.front().leaves[0].value, 36u);
    EXPECT_EQ(sent.back().leaves[0].value, 99u);
}

TEST_F(Notification, BadArgumentsAreRefusedWhole) {
    const nc_lib_leaf good{"/m:leaf", NC_LIB_TYPE_UINT32, 1};
    EXPECT_EQ(nc_lib_notification_send(nullptr, &good, 1, 0), EINVAL);
    EXPECT_EQ(nc_lib_notification_send(client, nullptr, 1, 0), EINVAL);
    EXPECT_EQ(nc_lib_notification_send(client, &good, 0, 0), EINVAL);
    EXPECT_EQ(nc_lib_notification_send(client, &good, -1, 0), EINVAL);
    EXPECT_EQ(nc_lib_notification_send(client, &good, 1, 1), EINVAL);
    EXPECT_EQ(send(std::vector<nc_lib_leaf>(65, good)), EINVAL);
    EXPECT_EQ(send({good, {nullptr, NC_LIB_TYPE_UINT32, 1}}), EINVAL);
    EXPECT_EQ(send({good, {"relative", NC_LIB_TYPE_UINT32, 1}}), EINVAL);
    EXPECT_EQ(send({good, {"/m:leaf", 9, 1}}), EINVAL);
    EXPECT_EQ(send({good, {"/m:leaf2", NC_LIB_TYPE_UINT32, 1}}), EINVAL) << "another notification";
    EXPECT_EQ(send({{"m:leaf", NC_LIB_TYPE_UINT32, 1}}), EINVAL);
    EXPECT_EQ(send({{"/", NC_LIB_TYPE_UINT32, 1}}), EINVAL);
    EXPECT_EQ(send({{"//leaf", NC_LIB_TYPE_UINT32, 1}}), EINVAL);
    EXPECT_TRUE(recent_notifications().empty());
    EXPECT_EQ(send(std::vector<nc_lib_leaf>(64, good)), 0);
}

TEST_F(Notification, LossOfTheDatabaseLosesIt) {
    platform.memory_store().drop(QV_MOM_LOCAL_DB);
    platform.run_ready();
    EXPECT_EQ(send({{"/m:leaf", NC_LIB_TYPE_UINT32, 1}}), ENOTCONN);
    EXPECT_TRUE(recent_notifications().empty());
    platform.memory_store().restore(QV_MOM_LOCAL_DB);
    platform.run_ready();
    EXPECT_EQ(send({{"/m:leaf", NC_LIB_TYPE_UINT32, 2}}), 0);
    ASSERT_EQ(recent_notifications().size(), 1u);
    EXPECT_EQ(recent_notifications()[0].leaves[0].value, 2u);
}

}  // namespace
}  // namespace qv
