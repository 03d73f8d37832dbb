// The C functions of qv/mom.h and the timers of qv/thread.h when operator new fails.
#include <cerrno>
#include <cstdlib>
#include <new>

#include "platform/client/thread_master.h"
#include "tests/support/memory_shortage.h"
#include "tests/support/store_fixture.h"

namespace store_test {
namespace {

using qv::test::without_memory;

TEST(MemoryShortage, EachCallReturnsAnErrorNumber) {
    qv::test::TestPlatform platform;
    qv_thread_master* const master = qv_thread_master_create();
    qv_mom_client* const client = qv_mom_client_init("TEST", master, nullptr);
    qv_mom_client_connect(client, 4, nullptr, nullptr);
    platform.run_ready();
    const LoopInfo info(1234567, 1, 1, 8);
    const ProtobufCMessage* const record = info.record();

    EXPECT_EQ(without_memory([&] { return qv_mom_client_init("TEST", master, nullptr); }), nullptr);
    EXPECT_EQ(without_memory([&] { return qv_mom_client_connect(client, 3, on_up, nullptr); }),
              ENOMEM);
    EXPECT_EQ(
        without_memory([&] { return qv_mom_client_set_reconnect_cb(client, 5, on_up, nullptr); }),
        ENOMEM);
    EXPECT_EQ(
        without_memory([&] { return qv_mom_client_set_disconnect_cb(client, 6, on_up, nullptr); }),
        ENOMEM);
    EXPECT_EQ(without_memory([&] { return qv_mom_set(client, 4, record, 0, 0); }), ENOMEM);
    EXPECT_EQ(without_memory([&] { return qv_mom_del(client, 4, record, 0, 0); }), ENOMEM);
    EXPECT_EQ(without_memory([&] { return qv_mom_pdel(client, 4, record, 0, 0, 0); }), ENOMEM);
    EXPECT_EQ(without_memory([&] { return qv_mom_publish(client, 4, record, 0, 0); }), ENOMEM);
    EXPECT_EQ(without_memory(
                  [&] { return qv_mom_subscribe(client, 4, record, 0, on_loop_info, nullptr); }),
              ENOMEM);
    EXPECT_EQ(
        without_memory([&] { return qv_mom_scan(client, 4, record, 0, on_loop_info, nullptr); }),
        ENOMEM);

    EXPECT_EQ(platform.memory_store().keys(4), Lines{});
    EXPECT_EQ(qv_mom_set(client, 4, record, 0, 0), 0) << "with memory again";
    EXPECT_EQ(platform.memory_store().keys(4), Lines{"p_bridge.tarn_loop_info/ifx=1234567"});
    qv_thread_master_finish(master);
}

int do_nothing(qv_thread*) {
    return 0;
}

int throw_bad_alloc(qv_thread*) {
    throw std::bad_alloc();
}

// Half of the work is done then, and nobody can be told.
TEST(MemoryShortageDeathTest, WorkThatEndsInAnExceptionEndsTheProcess) {
    qv_thread work{nullptr, throw_bad_alloc, nullptr};
    EXPECT_DEATH(
        {
            try {
                qv_thread_call(&work);
            } catch (const std::bad_alloc&) {
                std::_Exit(0);
            }
        },
        "");
}

TEST(MemoryShortage, TimerThatFindsNoMemoryIsNotArmed) {
    qv::test::TestPlatform platform;
    qv_thread_master* const master = qv_thread_master_create();
    EXPECT_EQ(without_memory([&] { return qv_thread_add_timer(master, do_nothing, nullptr, 1); }),
              nullptr);
    qv_thread* slot = nullptr;
    EXPECT_EQ(without_memory([&] {
                  return qv_thread_insert_timer(master, &slot, do_nothing, nullptr, 1, "timer");
              }),
              ENOMEM);
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(qv::loop_of(master).next_timer(), std::nullopt);
    qv_thread_master_finish(master);
}

}  // namespace
}  // namespace store_test
