// Object database client: keyed records in numbered databases, with change notices.
//
// A record is a protobuf-c message. Its key is the sub-message field named `index`; a type without
// one is a singleton. Messages are packed during the call; the library keeps no pointer into them.
// All calls and all callbacks belong to the main thread; callbacks arrive through the thread
// master. ENOMEM is a possible result of every call that returns an error number.
//
// When the database has lost records that this process has set and not deleted since (it came back
// empty, or was emptied while it ran), they are set again: after a loss of the session before its
// reconnect callback runs, otherwise within seconds.
#pragma once

#include <cstdint>

#include <protobuf-c/protobuf-c.h>

#include "qv/thread.h"

extern "C" {

struct qv_mom_client;

// Well-known database numbers.
inline constexpr uint32_t QV_MOM_LOCAL_DB = 3;
inline constexpr uint32_t QV_MOM_APP_DB = 4;
inline constexpr uint32_t QV_MOM_FP_DB = 8;
inline constexpr uint32_t QV_MOM_CFG_DB = 22;

// Command code of the message that confirms a subscription; it carries no record.
inline constexpr int QV_MOM_CMD_SUBSCRIBED = 29;
// Command code of every message that carries a record.
inline constexpr int QV_MOM_CMD_RECORD = 1;

// Operation codes of a record message.
inline constexpr int QV_MOM_OPER_SET = 0;
inline constexpr int QV_MOM_OPER_DELETE = 1;
inline constexpr int QV_MOM_OPER_PUBLISH = 2;

// One message of a subscription or a scan. Valid during the callback.
struct qv_mom_msg {
    int cmd;                        // QV_MOM_CMD_*
    int oper;                       // QV_MOM_OPER_*, 0 for a scanned record
    uint32_t db;                    // database number
    const ProtobufCMessage* value;  // decoded record, null when there is none
};

// Callbacks of sessions and of records. Main thread, through the thread master, never inside a call
// of this header. Their results are ignored. They may call everything here, and may replace
// themselves. `msg` and its record belong to the library; copy what you keep.
using qv_mom_session_cb = int (*)(void* arg);
using qv_mom_msg_cb = int (*)(qv_mom_client* client, const qv_mom_msg* msg);

// Creates a client named `name` on `master`. A `current` client that is not null is returned as it
// is. Null when the client cannot be created.
qv_mom_client* qv_mom_client_init(const char* name, qv_thread_master* master,
                                  qv_mom_client* current);

// Opens the session with database `db`; `connected` is called with `arg` once, when the session is
// up, however long that takes. 0, or an error number.
int qv_mom_client_connect(qv_mom_client* client, uint32_t db, qv_mom_session_cb connected,
                          void* arg);

// `callback` runs each time the session is back after a loss. 0, or an error number.
int qv_mom_client_set_reconnect_cb(qv_mom_client* client, uint32_t db, qv_mom_session_cb callback,
                                   void* arg);

// `callback` runs each time the session is lost. 0, or an error number.
int qv_mom_client_set_disconnect_cb(qv_mom_client* client, uint32_t db, qv_mom_session_cb callback,
                                    void* arg);

// Stores `record` under its key, replacing an older one, and notifies the subscribers. The
// descriptor may be left out: the record carries its own. 0, or an error number (ENOTCONN: session
// down; EINVAL: no key).
int qv_mom_set(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
               int reserved, const ProtobufCMessageDescriptor* descriptor = nullptr);

// Deletes the record with the key of `record` and notifies the subscribers; a missing record is not
// an error. 0, or an error number as above.
int qv_mom_del(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
               int reserved);

// Deletes every record of the type whose key agrees with the non-default key fields of `record`:
// with an empty key, all of them. 0, or an error number as above.
int qv_mom_pdel(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
                int reserved, int reserved2);

// Subscribes to all records of the type of `key`, a record of that type with an initialised index.
// The confirmation is a message with command code QV_MOM_CMD_SUBSCRIBED. Subscribing again replaces
// the callback and confirms again. A loss of the session ends the subscription: subscribe again on
// reconnect. 0, or an error number.
int qv_mom_subscribe(qv_mom_client* client, uint32_t db, const ProtobufCMessage* key, int flags,
                     qv_mom_msg_cb callback, void* arg);

// Delivers every existing record of the type of `key` through `callback`, later, from the loop. A
// loss of the session ends the scan. 0, or an error number.
int qv_mom_scan(qv_mom_client* client, uint32_t db, const ProtobufCMessage* key, int flags,
                qv_mom_msg_cb callback, void* arg);

// Notifies the subscribers of the type without storing anything. 0, or an error number.
int qv_mom_publish(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
                   int reserved);

}  // extern "C"
