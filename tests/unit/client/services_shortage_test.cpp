// The C functions of the smaller services when operator new fails.
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/client/notification_ring.h"
#include "platform/client/thread_master.h"
#include "platform/driver/forwarding_driver.h"
#include "qv/cap.h"
#include "qv/fp_udp.h"
#include "qv/netconf.h"
#include "qv/rdnd.h"
#include "qv/syslog.h"
#include "qv/zlog.h"
#include "tests/support/memory_shortage.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/test_platform.h"

namespace qv {
namespace {

using test::without_memory;

int g_master_calls = 0;

int take_master() {
    ++g_master_calls;
    return 0;
}

// Accepts everything and reports nothing.
class SilentPlane final : public ForwardingDriver {
 public:
    void start(ForwardingSink& /*to*/) override {}
    void reserve(ForwardingId /*id*/, Table /*table*/) override {}
    void install(ForwardingId /*id*/, std::optional<uint32_t> /*phyid*/,
                 const ForwardingRule& /*rule*/) override {}
    void remove(ForwardingId /*id*/) override {}
    void remove_leftovers() override {}
};

struct Rig {
    test::TestPlatform platform;
    test::TemporaryDirectory directory;
    qv_thread_master* const master = qv_thread_master_create();

    Rig() { platform.settings.cli_socket = directory.file("cli.sock"); }
    ~Rig() { qv_thread_master_finish(master); }
};

TEST(MemoryShortage, CapabilityFileIsReadWhenThereIsMemory) {
    Rig rig;
    rig.platform.settings.capabilities = rig.directory.write("capabilities", "\"a/b\" = 8000\n");
    EXPECT_EQ(without_memory([] { return libqv_cap_init("lda", "a/b"); }), ENOMEM);
    EXPECT_EQ(rig.platform.log.lines(), std::vector<std::string>{}) << "no fault of the file's";
    EXPECT_EQ(libqv_cap_init("lda", "a/b"), 0);
    int32_t value = 0;
    EXPECT_EQ(libqv_cap_get_capacity_int32("lda", "a/b", &value, -1), 0);
    EXPECT_EQ(value, 8000);
}

TEST(MemoryShortage, RoleCanBeRequestedAgain) {
    Rig rig;
    const rdnd_reg record{.master = rig.master,
                          .module = "lda",
                          .mom = nullptr,
                          .master_cb = take_master,
                          .switch_cb = nullptr,
                          .reserved = {0, 0},
                          .flags = 0,
                          .dbs = nullptr,
                          .db_num = 0};
    EXPECT_EQ(without_memory([&] { return rdnd_lib_mom_reg(&record); }), ENOMEM);
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    rig.platform.run_ready();
    EXPECT_EQ(g_master_calls, 1);
}

TEST(MemoryShortage, SupervisionThatCannotStartIsLeftToTheSupervisor) {
    Rig rig;
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_PID");
    setenv("WATCHDOG_USEC", "10000000", 1);
    EXPECT_NO_THROW(without_memory([&] {
        app_public_init_dead_detection(rig.master);
        return 0;
    }));
    EXPECT_EQ(loop_of(rig.master).next_timer(), std::nullopt);
    unsetenv("WATCHDOG_USEC");
}

TEST(MemoryShortage, NotificationIsNotSentAndNotKept) {
    Rig rig;
    qv_mom_client* const client = qv_mom_client_init("TEST", rig.master, nullptr);
    qv_mom_client_connect(client, QV_MOM_LOCAL_DB, nullptr, nullptr);
    rig.platform.run_ready();
    const nc_lib_leaf leaf{"/m:state/entry[name='swp1']/notify-type", NC_LIB_TYPE_UINT32, 1};
    EXPECT_EQ(without_memory([&] { return nc_lib_notification_send(client, &leaf, 1, 0); }),
              ENOMEM);
    EXPECT_EQ(recent_notifications().size(), 0U);
    EXPECT_EQ(nc_lib_notification_send(client, &leaf, 1, 0), 0);
    EXPECT_EQ(recent_notifications().size(), 1U);
}

TEST(MemoryShortage, EachOperationOnAccessListsReturnsAnErrorNumber) {
    Rig rig;
    SilentPlane plane;
    rig.platform.forwarding_plane = &plane;
    const fp_udp_mgr& operations = *fp_udp_get_mgr();
    fp_acl_key key{};
    std::string("test").copy(key.app, sizeof key.app - 1);
    key.acl_id = 7;
    fp_apply_point point{};
    std::string("test").copy(point.app, sizeof point.app - 1);
    point.type = FP_APPLY_GLOBAL;

    EXPECT_EQ(without_memory([] { return fp_udp_register_app_type("test"); }), ENOMEM);
    ASSERT_EQ(fp_udp_register_app_type("test"), 0);
    EXPECT_EQ(without_memory([&] { return operations.acl_create(nullptr, &key); }), ENOMEM);
    ASSERT_EQ(operations.acl_create(nullptr, &key), 0);
    fp_entry* const entry = operations.entry_alloc();
    entry->control = 1;
    EXPECT_EQ(without_memory([&] { return operations.entry_add(nullptr, &key, entry); }), ENOMEM);
    EXPECT_EQ(operations.entry_delete(nullptr, &key, 0), ENOENT) << "nothing was added";
    EXPECT_EQ(operations.entry_add(nullptr, &key, entry), 0);
    fp_apply* const apply = operations.apply_alloc(&key);
    EXPECT_EQ(without_memory([&] { return operations.apply_add(nullptr, &point, 0, apply); }),
              ENOMEM);
    EXPECT_EQ(operations.apply_delete(nullptr, &key, &point), ENOENT) << "nothing was applied";
    EXPECT_EQ(operations.apply_add(nullptr, &point, 0, apply), 0);
    operations.entry_free(entry);
    operations.apply_free(apply);
}

TEST(MemoryShortage, LogFileIsOpenedLater) {
    Rig rig;
    EXPECT_EQ(without_memory([] { return qv_zlog_init("lda"); }), nullptr);
    EXPECT_NE(qv_zlog_init("lda"), nullptr);
}

TEST(MemoryShortage, MessageOfTheSystemLogIsLost) {
    Rig rig;
    EXPECT_NO_THROW(without_memory([] {
        printk_syslog(4, "LDA", "TEST", "lost");
        printk_syslog_ext(4, "LDA", "TEST", "lost too");
        return 0;
    }));
    printk_syslog(4, "LDA", "TEST", "here");
    EXPECT_EQ(rig.platform.log.lines(), std::vector<std::string>{"LDA-4-TEST: here"});
}

}  // namespace
}  // namespace qv
