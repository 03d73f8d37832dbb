// Redis for the small measuring programs: a blocking connection, and the record of a loop
// report as docs/object-database.md describes it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include <hiredis/hiredis.h>

#include "p_bridge.pb-c.h"

namespace bench {

struct ContextFree {
    void operator()(redisContext* context) const { redisFree(context); }
};
using Connection = std::unique_ptr<redisContext, ContextFree>;

struct ReplyFree {
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

inline constexpr char kReports[] = "mom/4/p_bridge.tarn_loop_info";
inline constexpr char kEntries[] = "mom/4/p_app.lda_loop_entry";

[[noreturn]] inline void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

inline constexpr int kRepliesPerRecord = 4;

// Ends the program when there is no server.
inline Connection connect(const char* socket, unsigned database = 4) {
    Connection connection(redisConnectUnix(socket));
    if (!connection || connection->err != 0) {
        fail("redis");
    }
    const Reply selected(
        static_cast<redisReply*>(redisCommand(connection.get(), "SELECT %u", database)));
    if (!selected || selected->type == REDIS_REPLY_ERROR) {
        fail("redis: SELECT");
    }
    return connection;
}

// Waits for the next reply or message.
inline Reply next_reply(redisContext* connection) {
    void* reply = nullptr;
    if (redisGetReply(connection, &reply) != REDIS_OK) {
        fail("redis");
    }
    return Reply(static_cast<redisReply*>(reply));
}

inline void subscribe(redisContext* connection, const char* channel) {
    redisAppendCommand(connection, "SUBSCRIBE %s", channel);
    next_reply(connection);
}

// The payload of a message of a subscription; empty for anything else.
inline std::string_view payload(const Reply& message) {
    if (message->type != REDIS_REPLY_ARRAY || message->elements != 3 ||
        message->element[2]->type != REDIS_REPLY_STRING) {
        return {};
    }
    return {message->element[2]->str, message->element[2]->len};
}

// The record of a notice, or null.
struct ReportFree {
    void operator()(PBridge__TarnLoopInfo* report) const {
        p_bridge__tarn_loop_info__free_unpacked(report, nullptr);
    }
};
using Report = std::unique_ptr<PBridge__TarnLoopInfo, ReportFree>;

inline Report unpack(std::string_view notice) {
    if (notice.empty() || notice[0] != 0) {
        return nullptr;
    }
    Report report(p_bridge__tarn_loop_info__unpack(
        nullptr, notice.size() - 1, reinterpret_cast<const uint8_t*>(notice.data()) + 1));
    return report && report->index ? std::move(report) : nullptr;
}

// Queues the transaction that stores a record and notifies the subscribers of `channel`. `notice`
// is a byte 0 and the record. It has kRepliesPerRecord replies.
inline void append_record(redisContext* connection, const char* key, const char* channel,
                          std::string_view notice) {
    const std::string_view record = notice.substr(1);
    redisAppendCommand(connection, "MULTI");
    redisAppendCommand(connection, "SET %s %b", key, record.data(), record.size());
    redisAppendCommand(connection, "PUBLISH %s %b", channel, notice.data(), notice.size());
    redisAppendCommand(connection, "EXEC");
}

// Sends all that is queued.
inline void send_queued(redisContext* connection) {
    for (int done = 0; done == 0;) {
        if (redisBufferWrite(connection, &done) != REDIS_OK) {
            fail("redis");
        }
    }
}

// Takes the replies of the last record.
inline void take_replies(redisContext* connection) {
    for (int n = 0; n < kRepliesPerRecord; n++) {
        next_reply(connection);
    }
}

// Queues a report as a record of the connection's database.
inline void append_report(redisContext* connection, uint32_t ifx, uint32_t is_loop,
                          const char* channel = kReports) {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
    index.ifx = ifx;
    record.index = &index;
    record.vid = 1;
    record.is_loop = is_loop;
    record.src_ifx = ifx;
    uint8_t notice[64] = {0};
    const size_t size = p_bridge__tarn_loop_info__pack(&record, notice + 1);
    append_record(connection, ("p_bridge.tarn_loop_info/ifx=" + std::to_string(ifx)).c_str(),
                  channel, {reinterpret_cast<const char*>(notice), size + 1});
}

}  // namespace bench
