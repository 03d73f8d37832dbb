// A started agent on the fake platform: the role callback has run, nothing is connected yet, the
// list of calls, which includes every log line, is empty. fake::start_threads() starts the delivery
// thread.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "app_debug.h"
#include "lda_cli_delivery.h"
#include "lda_lsm.h"
#include "lda_main.h"
#include "lda_msg.h"
#include "tests/support/fake_qv/fake_qv.h"

class AgentTest : public ::testing::Test {
 protected:
    AgentTest() {
        fake::no_file("/data/lda/lda.dbg");
        g_lda_master = fake::master();
        g_lda_global = fake::mom_client();
        app_debug_init("lda", "LDA");
        hot_standby_callback();
        g_app_zlog_level = 5;
        fake::clear_calls();
    }

    // Whether another thread would wait for a lock of the agent.
    static bool is_held(pthread_mutex_t* mutex) {
        bool held = false;
        std::thread([&] {
            held = pthread_mutex_trylock(mutex) != 0;
            if (!held)
                pthread_mutex_unlock(mutex);
        }).join();
        return held;
    }

    // Adds port "swp<ifx>" to the switch and its record to the agent.
    static lda_intf_t* add_record(uint32_t ifx, uint32_t mode = 1) {
        fake::add_port(ifx, mode);
        lda_intf_t* record = lda_add_intf(ifx);
        fake::clear_calls();
        return record;
    }

    // The same with the port in the loop table, as after a report of source 0.
    static lda_intf_t* add_looped(uint32_t ifx, uint32_t mode = 1) {
        lda_intf_t* record = add_record(ifx, mode);
        record->tarn_result = 1;
        record->total_result = 1;
        g_lda_loop_set->loop_num++;
        return record;
    }

    // The messages queued for the delivery thread, with the fields that are not zero: "type=2 mid=2
    // ifx=5 shutdown=1".
    static fake::Lines queued() {
        fake::Lines lines;
        const lda_list_t* head = &g_lda_cli_msg_set->list;
        for (const lda_list_t* node = head->next; node != head; node = node->next) {
            auto* message = reinterpret_cast<const lda_cli_msg_t*>(node);
            std::string line = "type=" + std::to_string(message->type);
            line += field("enable", message->enable) + field("mid", message->mid) +
                    field("ifx", message->ifx) + field("new_type", message->new_type) +
                    field("old_type", message->old_type) + field("shutdown", message->shutdown) +
                    field("is_config_delivery", message->is_config_delivery);
            lines.push_back(line);
        }
        return lines;
    }

    static fake::Lines log_lines() { return fake::calls_of({"zlog"}); }

 private:
    static std::string field(const char* name, uint32_t value) {
        return value == 0 ? std::string() : std::string(" ") + name + "=" + std::to_string(value);
    }
};
