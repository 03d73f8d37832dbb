// The queue of the delivery thread, its two posters, the thread itself and the execution of lines.
#include "lda_cli_delivery.h"

#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include "lda_cli_exec.h"
#include "lda_cli_post.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

// The fake delays threads; this is the real call.
extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*entry)(void*), void* argument);

namespace {

const std::string received = "lda_cli_msg_thread_proc";

class Delivery : public StartedAgent {
 protected:
    static lda_cli_msg_t message(uint32_t type, uint32_t mid = 0, uint32_t ifx = 0,
                                 uint8_t shutdown = 0) {
        lda_cli_msg_t result{};
        result.type = type;
        result.mid = mid;
        result.ifx = ifx;
        result.shutdown = shutdown;
        return result;
    }
    static int post(const lda_cli_msg_t& posted) { return lda_cli_cmd_send(&posted); }
    // Waits until the thread has emptied the queue and waits again.
    static void drained() {
        fake::wait_until_idle([] { return g_lda_cli_msg_set->count == 0; });
    }
    // Starts the delivery thread and waits for its first wait.
    static void start_thread() {
        fake::start_threads();
        drained();
        fake::clear_calls();
    }
    // Runs the body in a separate thread, as the agent starts it. Returns true when it ended. A
    // thread that could not detach itself is joined.
    static bool body_ends(bool detaches) {
        pthread_t thread;
        if (__real_pthread_create(&thread, nullptr, announcing_body, nullptr) != 0)
            return false;
        bool done = body_ended().get_future().wait_for(std::chrono::seconds(60)) ==
                    std::future_status::ready;
        if (done && !detaches)
            pthread_join(thread, nullptr);
        return done;
    }
    static std::promise<void>& body_ended() {
        static auto* promise = new std::promise<void>;
        return *promise;
    }
    static void* announcing_body(void*) {
        struct Announcement {
            ~Announcement() { body_ended().set_value(); }  // also when the thread exits
        } announcement;
        return lda_cli_msg_thread_init(nullptr);
    }
    // The executed lines, without the session and its numbers.
    static Lines lines_executed() { return fake::calls_of({"cli_execute_cmd_buf_fd"}); }
};

// ---- The records ----

TEST_F(Delivery, QueueStartsEmpty) {
    EXPECT_EQ(g_lda_cli_msg_set->list.next, &g_lda_cli_msg_set->list);
    EXPECT_EQ(g_lda_cli_msg_set->list.prev, &g_lda_cli_msg_set->list);
    EXPECT_EQ(g_lda_cli_msg_set->count, 0);
    EXPECT_TRUE(free_for_others(&g_lda_cli_msg_set->lock));
}

TEST_F(Delivery, MessageFieldsAreInOrder) {
    const size_t offsets[] = {offsetof(lda_cli_msg_t, link),
                              offsetof(lda_cli_msg_t, enable),
                              offsetof(lda_cli_msg_t, mid),
                              offsetof(lda_cli_msg_t, ifx),
                              offsetof(lda_cli_msg_t, type),
                              offsetof(lda_cli_msg_t, new_type),
                              offsetof(lda_cli_msg_t, old_type),
                              offsetof(lda_cli_msg_t, shutdown),
                              offsetof(lda_cli_msg_t, is_config_delivery)};
    for (size_t i = 1; i < std::size(offsets); i++)
        EXPECT_LT(offsets[i - 1], offsets[i]);
    EXPECT_EQ(sizeof(lda_cli_msg_t), 48u);
    EXPECT_LT(offsetof(lda_cli_msg_set_t, list), offsetof(lda_cli_msg_set_t, cond));
    EXPECT_LT(offsetof(lda_cli_msg_set_t, cond), offsetof(lda_cli_msg_set_t, lock));
    EXPECT_LT(offsetof(lda_cli_msg_set_t, lock), offsetof(lda_cli_msg_set_t, count));
    EXPECT_EQ(sizeof(lda_cli_msg_set_t::count), 2u);
}

// ---- Posting ----

TEST_F(Delivery, PostCopiesAllFieldsButThePosters) {
    lda_cli_msg_t posted = message(5, 2, 7, 1);
    posted.link = {reinterpret_cast<lda_list_t*>(8), reinterpret_cast<lda_list_t*>(16)};
    posted.enable = 1;
    posted.new_type = 3;
    posted.old_type = 2;
    posted.is_config_delivery = 1;
    log_everything();
    EXPECT_EQ(post(posted), 0);
    EXPECT_EQ(fake::take_calls(),
              Lines{info("lda_cli_cmd_send",
                         "+++The number of cli_msg is 1, send cond signal[2,7,3,1].")});
    EXPECT_EQ(take_posted(), Lines{"type=5 enable=1 mid=2 ifx=7 new_type=3 old_type=2 shutdown=1"});
}

TEST_F(Delivery, PostsAreKeptInOrderAndCounted) {
    log_everything();
    post(message(2, 2, 1));
    post(message(2, 2, 2));
    lda_loop_cmd_send(1, 0, 3);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{
            info("lda_cli_cmd_send", "+++The number of cli_msg is 1, send cond signal[2,1,0,0]."),
            info("lda_cli_cmd_send", "+++The number of cli_msg is 2, send cond signal[2,2,0,0]."),
            info("lda_loop_cmd_send", "+++The number of cli_msg is 3, send cond signal[1,0,3].")}));
    EXPECT_EQ(take_posted(),
              (Lines{"type=2 mid=2 ifx=1", "type=2 mid=2 ifx=2", "type=0 enable=1 ifx=3"}));
}

TEST_F(Delivery, NullPostIsReported) {
    EXPECT_EQ(lda_cli_cmd_send(nullptr), 0);
    EXPECT_EQ(fake::take_calls(), Lines{error("lda_cli_cmd_send", "para wrong.")});
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(Delivery, WithoutMemoryThePostIsLost) {
    fake::fail_calloc(1);
    EXPECT_EQ(post(message(2, 2, 7, 1)), 0);
    fake::fail_calloc(1);
    EXPECT_EQ(lda_loop_cmd_send(1, 2, 0), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{error("lda_cli_cmd_send", "LDA malloc lda_cli_msg_t node error."),
                     error("lda_loop_cmd_send", "LDA malloc lda_cli_msg_t node error.")}));
    EXPECT_EQ(take_posted(), Lines{});
    EXPECT_TRUE(free_for_others(&g_lda_cli_msg_set->lock));
}

TEST_F(Delivery, PostSignalsAfterTheLockIsReleased) {
    int signals = 0;
    bool free = false;
    fake::on_signal([&] {
        signals++;
        free = free_for_others(&g_lda_cli_msg_set->lock);
        return 0;
    });
    EXPECT_EQ(post(message(2)), 0);
    EXPECT_EQ(signals, 1);
    EXPECT_TRUE(free);
}

TEST_F(Delivery, FeaturePostSignalsWhileItHoldsTheLock) {
    int signals = 0;
    bool free = true;
    fake::on_signal([&] {
        signals++;
        free = free_for_others(&g_lda_cli_msg_set->lock);
        return 0;
    });
    EXPECT_EQ(lda_loop_cmd_send(1, 2, 0), 0);
    EXPECT_EQ(signals, 1);
    EXPECT_FALSE(free);
    EXPECT_TRUE(free_for_others(&g_lda_cli_msg_set->lock));
}

TEST_F(Delivery, PostReturnsTheResultOfTheSignal) {
    fake::on_signal([] { return 22; });
    EXPECT_EQ(post(message(2)), 22);
    EXPECT_EQ(lda_loop_cmd_send(1, 2, 0), 22);
    EXPECT_EQ(take_posted().size(), 2u);
}

TEST_F(Delivery, PostLogsUnderTheQueueLock) {
    bool held = false;
    log_everything();
    fake::on_call("qvdf_zlog", [&] { held = !free_for_others(&g_lda_cli_msg_set->lock); });
    post(message(2));
    EXPECT_TRUE(held);
    held = false;
    lda_loop_cmd_send(1, 2, 0);
    EXPECT_TRUE(held);
}

// ---- The thread ----

TEST_F(Delivery, ThreadDetachesNamesItselfAndWaits) {
    log_everything();
    fake::start_threads();
    drained();
    EXPECT_EQ(fake::take_calls(), (Lines{"pthread_detach", "prctl 15 \"lda_cli_delivery\""}));
}

TEST_F(Delivery, ThreadThatCannotDetachEnds) {
    log_everything();
    fake::fail("pthread_detach", 22);
    EXPECT_TRUE(body_ends(false));
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{"pthread_detach", info("lda_cli_msg_thread_init", "cli_pthread detach failed!")}));
    post(message(2, 2, 7));
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
    EXPECT_EQ(fake::timed_waits(), 0);
}

TEST_F(Delivery, ThreadThatCannotBeNamedEnds) {
    log_everything();
    fake::fail("prctl", -1);
    EXPECT_TRUE(body_ends(true));
    EXPECT_EQ(fake::take_calls(),
              (Lines{"pthread_detach", "prctl 15 \"lda_cli_delivery\"",
                     info("lda_cli_msg_thread_init", "cli_pthread prctl error:Bad address")}));
    EXPECT_EQ(fake::timed_waits(), 0);
}

TEST_F(Delivery, MessagesPostedBeforeTheThreadRunsAreExecutedInOrder) {
    post(message(2, 2, 7, 1));
    post(message(3, 2, 8, 1));
    post(message(2, 2, 9, 0));
    log_everything();
    fake::start_threads();
    drained();
    expect_golden("delivery/three_messages", fake::take_calls());
}

TEST_F(Delivery, PostDuringTheWaitIsExecutedAtOnce) {
    start_thread();
    post(message(2, 2, 7, 1));
    drained();  // no wait has timed out
    EXPECT_EQ(lines_executed(), Lines{executed(1001, "shutdown \r\n", 7)});
}

TEST_F(Delivery, LostSignalDelaysTheWorkByASecondAtMost) {
    start_thread();
    fake::on_signal([] { return -1; });  // the signal is lost
    post(message(2, 2, 7, 1));
    EXPECT_EQ(lines_executed(), Lines{});
    fake::let_wait_time_out();
    drained();
    EXPECT_EQ(lines_executed(), Lines{executed(1001, "shutdown \r\n", 7)});
}

// The deadline is the time before the wait plus one second; the fake reads the clock again when the
// wait begins.
TEST_F(Delivery, WaitTimesOutAfterOneSecondOnTheMonotonicClock) {
    timespec before;
    clock_gettime(CLOCK_MONOTONIC, &before);
    start_thread();
    timespec deadline = fake::last_deadline();
    timespec started = fake::last_wait_started();
    auto nanoseconds = [](const timespec& t) {
        return t.tv_sec * 1000000000LL + t.tv_nsec;
    };
    EXPECT_GE(nanoseconds(deadline), nanoseconds(before) + 1000000000LL);
    EXPECT_LE(nanoseconds(deadline), nanoseconds(started) + 1000000000LL);
}

TEST_F(Delivery, TimedOutWaitWithoutWorkIsRepeated) {
    start_thread();
    int waits = fake::timed_waits();
    fake::let_wait_time_out();
    fake::wait_until_idle([waits] { return fake::timed_waits() > waits; });
    EXPECT_EQ(fake::take_calls(), Lines{});
    post(message(2, 2, 7, 1));
    drained();
    EXPECT_EQ(lines_executed(), Lines{executed(1001, "shutdown \r\n", 7)});
}

TEST_F(Delivery, EachTypeIsExecuted) {
    add(7);
    start_thread();
    struct Row {
        uint32_t type;
        Lines lines;
    };
    // Selector 1: only the storm lines.
    const Row rows[] = {
        {1, {"storm-loop-detect enable\r\n"}},
        {2, {"errdisable recovery \r\n", "no shutdown  \r\n"}},
        {3, {"no loop-detect apply shutdown-port \r\n"}},
        {4, {"no storm-loop-detect enable\r\n"}},
        {5, {"storm-loop-detect enable\r\n"}},
        {6, {"no storm-loop-detect enable\r\n", "no storm-loop-rate ratelimit\r\n"}},
    };
    int session = 1001;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.type);
        post(message(row.type, 1, 7, 0));
        drained();
        Lines expected{"cli_sub_create_session"};
        for (const std::string& line : row.lines)
            expected.push_back(executed(session, line, 7));
        expected.push_back("close session " + std::to_string(session++));
        EXPECT_EQ(fake::take_calls(), expected);
    }
}

TEST_F(Delivery, SelectorIsPassedToTheWork) {
    add(7);
    start_thread();
    struct Row {
        uint32_t type;
        Lines storm;
        Lines tarn;
    };
    const Row rows[] = {
        {1, {"storm-loop-detect enable\r\n"}, {"tarn port loop-detect warning\r\n"}},
        {4, {"no storm-loop-detect enable\r\n"}, {"no tarn port loop-detect\r\n"}},
        {5, {"storm-loop-detect enable\r\n"}, {"tarn port loop-detect warning\r\n"}},
        {6,
         {"no storm-loop-detect enable\r\n", "no storm-loop-rate ratelimit\r\n"},
         {"no tarn port loop-detect\r\n"}},
    };
    int session = 1001;
    for (const Row& row : rows) {
        for (uint32_t mid : {0u, 1u, 2u}) {
            SCOPED_TRACE(testing::Message() << "type " << row.type << " selector " << mid);
            post(message(row.type, mid, 7));
            drained();
            Lines on_port;
            for (const std::string& line : lines_executed())
                if (line.find(" interface 7") != std::string::npos)
                    on_port.push_back(line);
            fake::clear_calls();
            Lines expected;
            if (mid != 1)
                for (const std::string& line : row.tarn)
                    expected.push_back(executed(session, line, 7));
            if (mid != 0)
                for (const std::string& line : row.storm)
                    expected.push_back(executed(session, line, 7));
            EXPECT_EQ(on_port, expected);
            session++;
        }
    }
}

TEST_F(Delivery, UnknownTypesAreOnlyLogged) {
    start_thread();
    log_everything();
    for (uint32_t type : {7u, 8u, 0xFFFFFFFFu})
        post(message(type, 2, 7, 1));
    drained();
    Lines taken;
    for (const std::string& line : fake::take_calls())
        if (line.find("---The number of cli msg") != std::string::npos)
            taken.push_back(line.substr(line.find("receive")));
    EXPECT_EQ(taken, (Lines{"receive a signal[2,7,0,0,1,7]\"", "receive a signal[2,7,0,0,1,8]\"",
                            "receive a signal[2,7,0,0,1,-1]\""}));
    EXPECT_EQ(fake::count("cli_sub_create_session"), 0);
}

TEST_F(Delivery, MessagesOfEnableAndDisableAreOnlyLogged) {
    cli_ready = 1;
    lda_loop_detect_enable();
    lda_loop_detect_disable();
    log_everything();
    fake::clear_calls();
    fake::start_threads();
    drained();
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{"pthread_detach", "prctl 15 \"lda_cli_delivery\"",
               info(received, "---The number of cli msg is 1, receive a signal[2,0,0,0,0,0]"),
               info(received, "---The number of cli msg is 0, receive a signal[2,0,0,0,0,0]")}));
}

TEST_F(Delivery, ThreadLogsThePolicies) {
    lda_cli_msg_t posted = message(7, 2, 7);
    posted.new_type = 4;
    posted.old_type = 3;
    post(posted);
    log_everything();
    fake::start_threads();
    drained();
    EXPECT_EQ(fake::take_calls().back(),
              info(received, "---The number of cli msg is 0, receive a signal[2,7,3,4,0,7]"));
}

TEST_F(Delivery, WorkRunsWithoutTheQueueLockAndMayPost) {
    start_thread();
    bool free = false;
    int executions = 0;
    fake::on_call("cli_execute_cmd_buf_fd", [&] {
        free = free_for_others(&g_lda_cli_msg_set->lock);
        if (executions++ == 0)
            post(message(2, 2, 8, 1));
    });
    post(message(2, 2, 7, 1));
    drained();
    EXPECT_TRUE(free);
    EXPECT_EQ(lines_executed(),
              (Lines{executed(1001, "shutdown \r\n", 7), executed(1002, "shutdown \r\n", 8)}));
}

TEST_F(Delivery, WorkRunsWithoutTheLoopLock) {
    add(7);
    start_thread();
    bool free = false;
    fake::on_call("cli_execute_cmd_buf_fd", [&] { free = free_for_others(&g_lda_loop_set->lock); });
    post(message(5, 2));
    drained();
    EXPECT_TRUE(free);
    EXPECT_EQ(lines_executed().size(), 4u);
}

TEST_F(Delivery, LinksOfADequeuedMessageArePoisoned) {
    post(message(2, 2, 7, 1));
    const lda_list_t* node = g_lda_cli_msg_set->list.next;
    uintptr_t next = 0;
    uintptr_t prev = 0;
    fake::on_call("cli_sub_create_session", [&] {
        next = reinterpret_cast<uintptr_t>(node->next);
        prev = reinterpret_cast<uintptr_t>(node->prev);
    });
    fake::start_threads();
    drained();
    EXPECT_EQ(next, 0x100100u);
    EXPECT_EQ(prev, 0x200200u);
}

// The thread finds no message and looks again without waiting. The test corrects the count in the
// fourth round, under the lock.
TEST_F(Delivery, CountWithoutAMessageIsIgnored) {
    g_lda_cli_msg_set->count = 1;
    int rounds = 0;
    fake::on_lock(&g_lda_cli_msg_set->lock, [&](bool taken) {
        if (taken && ++rounds == 4)
            g_lda_cli_msg_set->count = 0;
    });
    fake::start_threads();
    drained();
    fake::on_lock(nullptr, nullptr);
    EXPECT_GE(rounds, 4);
    EXPECT_EQ(fake::timed_waits(), 1);
    EXPECT_EQ(fake::take_calls(), (Lines{"pthread_detach", "prctl 15 \"lda_cli_delivery\""}));
}

TEST_F(Delivery, BurstOfTenThousandMessagesIsExecutedInOrder) {
    for (uint32_t ifx = 1; ifx <= 10000; ifx++)
        post(message(2, 2, ifx, 1));
    EXPECT_EQ(g_lda_cli_msg_set->count, 10000);
    fake::clear_calls();
    fake::start_threads();
    drained();
    Lines lines = lines_executed();
    ASSERT_EQ(lines.size(), 10000u);
    for (uint32_t ifx = 1; ifx <= 10000; ifx++)
        ASSERT_EQ(lines[ifx - 1], executed(static_cast<int>(1000 + ifx), "shutdown \r\n", ifx));
}

TEST_F(Delivery, MessageAboutADeletedPortIsStillExecuted) {
    lda_intf_t* record = add(7);
    record->is_shutdown = 1;
    post(message(2, 2, 7, 0));
    lda_del_intf(7);
    fake::on_line("no shutdown  \r\n", "% no such interface", 0);
    fake::start_threads();
    drained();
    EXPECT_EQ(lines_executed(), (Lines{executed(1001, "errdisable recovery \r\n", 7),
                                       executed(1001, "no shutdown  \r\n", 7)}));
    EXPECT_EQ(fake::calls_of({"cli_client_c2p_reform"}), Lines{});
}

TEST_F(Delivery, SessionThatCannotBeOpenedDropsOnlyItsMessage) {
    start_thread();
    fake::fail_nth("cli_sub_create_session", 1, -5);
    post(message(2, 2, 7, 1));
    post(message(2, 2, 8, 1));
    drained();
    EXPECT_EQ(fake::take_calls(),
              (Lines{"cli_sub_create_session",
                     error("cli_exec_shutdown", "LDA cli_sub_create_session fail, fd=-5"),
                     "cli_sub_create_session", executed(1001, "shutdown \r\n", 8),
                     "close session 1001"}));
}

// ---- Executing one line ----

TEST_F(Delivery, ModeDescriptorOfGlobalConfiguration) {
    cli_mode mode;
    memset(&mode, 0xff, sizeof mode);
    lda_cli_mode_set(7, 0, &mode);
    EXPECT_STREQ(mode.name, "config");
    EXPECT_EQ(mode.ifx, 0);
    for (size_t i = sizeof "config"; i < sizeof mode.name; i++)
        EXPECT_EQ(mode.name[i], '\0');
}

TEST_F(Delivery, ModeDescriptorOfAPortIsSignExtended) {
    cli_mode mode;
    memset(&mode, 0xff, sizeof mode);
    lda_cli_mode_set(7, 1, &mode);
    EXPECT_STREQ(mode.name, "interface");
    EXPECT_EQ(mode.ifx, 7);
    lda_cli_mode_set(0x80000001, 1, &mode);
    EXPECT_EQ(mode.ifx, -2147483647);
}

TEST_F(Delivery, OtherModesLeaveTheDescriptorZero) {
    const cli_mode zero{};
    for (uint32_t number : {2u, 0xFFFFFFFFu}) {
        cli_mode mode;
        memset(&mode, 0xff, sizeof mode);
        lda_cli_mode_set(7, number, &mode);
        EXPECT_EQ(memcmp(&mode, &zero, sizeof mode), 0);
    }
}

class Execution : public Delivery {
 protected:
    Execution() { lda_cli_mode_set(7, 1, &mode); }
    int32_t execute(const std::string& output, int result) {
        fake::on_line("line\r\n", output, result);
        return lda_loop_cmd_execute(1001, "line\r\n", &mode);
    }
    cli_mode mode;
};

TEST_F(Execution, SilentLineReturnsTheResultOfTheFramework) {
    log_everything();
    EXPECT_EQ(execute("", 0), 0);
    EXPECT_EQ(execute("", 17), 17);
    EXPECT_EQ(fake::take_calls(),
              (Lines{executed(1001, "line\r\n", 7),
                     info("lda_loop_cmd_execute", "ifx 7 cmd line\r\n out ret=0 "),
                     executed(1001, "line\r\n", 7),
                     info("lda_loop_cmd_execute", "ifx 7 cmd line\r\n out ret=17 ")}));
}

TEST_F(Execution, LineThatPrintsIsRefused) {
    log_everything();
    EXPECT_EQ(execute("no\n", 0), 2);
    EXPECT_EQ(fake::take_calls(),
              (Lines{executed(1001, "line\r\n", 7),
                     info("lda_loop_cmd_execute", "ifx 7 cmd line\r\n out ret=2 no\n")}));
}

TEST_F(Execution, LineThatFailsIsReported) {
    log_everything();
    EXPECT_EQ(execute("", -3), -3);
    EXPECT_EQ(fake::take_calls(),
              (Lines{executed(1001, "line\r\n", 7),
                     error("lda_loop_cmd_execute", "cli_execute_cmd_buf fail:cmd=line\r\n, ret=-3"),
                     info("lda_loop_cmd_execute", "ifx 7 cmd line\r\n out ret=-3 ")}));
}

TEST_F(Execution, LineThatFailsAndPrintsIsReportedAndRefused) {
    EXPECT_EQ(execute("denied", -1), 2);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{executed(1001, "line\r\n", 7),
               error("lda_loop_cmd_execute", "cli_execute_cmd_buf fail:cmd=line\r\n, ret=-1")}));
}

TEST_F(Execution, OutputThatBeginsWithATerminatorCountsAsNone) {
    EXPECT_EQ(execute(std::string("\0text", 5), 4), 4);
}

TEST_F(Execution, LongOutputIsCutTo512Characters) {
    log_everything();
    EXPECT_EQ(execute(std::string(512, 'a') + "b", 0), 2);
    EXPECT_EQ(fake::calls().back(), info("lda_loop_cmd_execute",
                                         "ifx 7 cmd line\r\n out ret=2 " + std::string(512, 'a')));
}

TEST_F(Execution, BufferOfALineStartsEmpty) {
    EXPECT_EQ(execute("refused", 0), 2);
    EXPECT_EQ(execute("", 0), 0);
}

TEST_F(Execution, InterfaceOfTheLineIsLoggedUnsigned) {
    log_everything();
    lda_cli_mode_set(0xFFFFFFFF, 1, &mode);
    execute("", 0);
    EXPECT_EQ(fake::calls().back(),
              info("lda_loop_cmd_execute", "ifx 18446744073709551615 cmd line\r\n out ret=0 "));
}

TEST_F(Execution, OutputCallbackCopiesTheReportedLength) {
    char buffer[514];
    memset(buffer, '.', sizeof buffer);
    cmd_exec_out_cback("abcdef", 3, buffer);
    EXPECT_EQ(std::string(buffer, 5), "abc..");
    cmd_exec_out_cback("", 0, buffer);
    EXPECT_EQ(std::string(buffer, 5), "abc..");
    std::string text(600, 'x');
    cmd_exec_out_cback(text.data(), text.size(), buffer);
    EXPECT_EQ(std::string(buffer, 514), std::string(512, 'x') + "..");
}

}  // namespace
