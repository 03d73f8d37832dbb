// Object database: sessions and subscriptions that tests drive; records rendered as text.
#include <cstring>
#include <map>

#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

struct qv_mom_client {
    std::map<uint32_t, fake::MomSession> sessions;
    std::map<std::pair<uint32_t, std::string>, qv_mom_msg_cb> subscribers;
    std::map<std::pair<uint32_t, std::string>, qv_mom_msg_cb> scanners;
};

namespace fake {
namespace {

template <typename T>
T value_at(const void* field) {
    T value;
    memcpy(&value, field, sizeof value);
    return value;
}

std::string render_fields(const ProtobufCMessage* record);

// The text of one field, empty when it has its default value.
std::string render_field(const ProtobufCFieldDescriptor& field, const void* at) {
    auto unless_zero = [](auto value) {
        return value == 0 ? std::string() : std::to_string(value);
    };
    switch (field.type) {
        case PROTOBUF_C_TYPE_STRING: {
            const char* text = value_at<const char*>(at);
            return text == nullptr || *text == '\0' ? std::string() : quoted(text);
        }
        case PROTOBUF_C_TYPE_MESSAGE: {
            auto* message = value_at<const ProtobufCMessage*>(at);
            return message == nullptr ? std::string() : "{" + render_fields(message) + "}";
        }
        case PROTOBUF_C_TYPE_BOOL:
            return unless_zero(value_at<protobuf_c_boolean>(at));
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
            return unless_zero(value_at<uint32_t>(at));
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
            return unless_zero(value_at<int64_t>(at));
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            return unless_zero(value_at<uint64_t>(at));
        default:
            return unless_zero(value_at<int32_t>(at));
    }
}

std::string render_fields(const ProtobufCMessage* record) {
    std::string text;
    for (unsigned i = 0; i < record->descriptor->n_fields; i++) {
        const ProtobufCFieldDescriptor& field = record->descriptor->fields[i];
        std::string value =
            render_field(field, reinterpret_cast<const char*>(record) + field.offset);
        if (value.empty())
            continue;
        text += text.empty() ? "" : " ";
        text += field.name;
        text += value[0] == '{' ? value : "=" + value;
    }
    return text;
}

std::string where(const qv_mom_client* client, uint32_t db) {
    return std::string(client == mom_client() ? "" : " wrong client") + " db=" + std::to_string(db);
}

std::string type_of(const ProtobufCMessage* record) {
    return record->descriptor->name;
}

int run(qv_mom_session_cb callback, void* arg) {
    return callback ? callback(arg) : -1000;
}

// Common part of the session calls: whether to keep the callback.
int session_call(const char* name, qv_mom_client* client, uint32_t db, const void* arg) {
    std::string line = name + where(client, db) + (arg == nullptr ? "" : " with argument");
    return static_cast<int>(enter(name, line));
}

int record_call(const char* name, const qv_mom_client* client, uint32_t db,
                const ProtobufCMessage* record, const std::string& rest) {
    return static_cast<int>(enter(name, name + where(client, db) + " " + render(record) + rest));
}

// Of the last qv_mom_set, which the agent calls on its main thread only.
const ProtobufCMessageDescriptor* set_descriptor = nullptr;

}  // namespace

const ProtobufCMessageDescriptor* mom_set_descriptor() {
    return set_descriptor;
}

qv_mom_client* mom_client() {
    static auto* instance = new qv_mom_client;
    return instance;
}

MomSession mom_session(uint32_t db) {
    return mom_client()->sessions[db];
}

int mom_connect(uint32_t db) {
    MomSession session = mom_session(db);
    return run(session.connect, session.connect_arg);
}

int mom_reconnect(uint32_t db) {
    MomSession session = mom_session(db);
    return run(session.reconnect, session.reconnect_arg);
}

int mom_disconnect(uint32_t db) {
    MomSession session = mom_session(db);
    return run(session.disconnect, session.disconnect_arg);
}

qv_mom_msg_cb mom_subscriber(uint32_t db, const std::string& type) {
    return mom_client()->subscribers[{db, type}];
}

qv_mom_msg_cb mom_scanner(uint32_t db, const std::string& type) {
    return mom_client()->scanners[{db, type}];
}

int mom_message(uint32_t db, const std::string& type, int cmd, int oper,
                const ProtobufCMessage* value) {
    qv_mom_msg_cb callback = mom_subscriber(db, type);
    if (callback == nullptr)
        return -1000;
    qv_mom_msg message{cmd, oper, db, value};
    return callback(mom_client(), &message);
}

std::string render(const ProtobufCMessage* record) {
    std::string fields = render_fields(record);
    return type_of(record) + (fields.empty() ? "" : " " + fields);
}

}  // namespace fake

extern "C" {

qv_mom_client* qv_mom_client_init(const char* name, qv_thread_master* master,
                                  qv_mom_client* current) {
    std::string line = "qv_mom_client_init " + fake::quoted_or_null(name) +
                       (master == fake::master() ? "" : " wrong master") +
                       (current == nullptr ? "" : " with current client");
    return fake::enter_refused("qv_mom_client_init", line) ? nullptr : fake::mom_client();
}

int qv_mom_client_connect(qv_mom_client* client, uint32_t db, qv_mom_session_cb connected,
                          void* arg) {
    int result = fake::session_call("qv_mom_client_connect", client, db, arg);
    if (result == 0) {
        fake::mom_client()->sessions[db].connect = connected;
        fake::mom_client()->sessions[db].connect_arg = arg;
    }
    return result;
}

int qv_mom_client_set_reconnect_cb(qv_mom_client* client, uint32_t db, qv_mom_session_cb callback,
                                   void* arg) {
    int result = fake::session_call("qv_mom_client_set_reconnect_cb", client, db, arg);
    if (result == 0) {
        fake::mom_client()->sessions[db].reconnect = callback;
        fake::mom_client()->sessions[db].reconnect_arg = arg;
    }
    return result;
}

int qv_mom_client_set_disconnect_cb(qv_mom_client* client, uint32_t db, qv_mom_session_cb callback,
                                    void* arg) {
    int result = fake::session_call("qv_mom_client_set_disconnect_cb", client, db, arg);
    if (result == 0) {
        fake::mom_client()->sessions[db].disconnect = callback;
        fake::mom_client()->sessions[db].disconnect_arg = arg;
    }
    return result;
}

int qv_mom_set(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
               int reserved, const ProtobufCMessageDescriptor* descriptor) {
    fake::set_descriptor = descriptor;
    bool wrong = descriptor != nullptr && descriptor != record->descriptor;
    return fake::record_call("qv_mom_set", client, db, record,
                             fake::unusual("flags", flags) + fake::unusual("reserved", reserved) +
                                 (wrong ? " wrong descriptor" : ""));
}

int qv_mom_del(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
               int reserved) {
    return fake::record_call("qv_mom_del", client, db, record,
                             fake::unusual("flags", flags) + fake::unusual("reserved", reserved));
}

int qv_mom_pdel(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
                int reserved, int reserved2) {
    return fake::record_call("qv_mom_pdel", client, db, record,
                             fake::unusual("flags", flags) + fake::unusual("reserved", reserved) +
                                 fake::unusual("reserved2", reserved2));
}

int qv_mom_subscribe(qv_mom_client* client, uint32_t db, const ProtobufCMessage* key, int flags,
                     qv_mom_msg_cb callback, void* arg) {
    int result =
        fake::record_call("qv_mom_subscribe", client, db, key,
                          fake::unusual("flags", flags) + (arg == nullptr ? "" : " with argument"));
    if (result == 0)
        fake::mom_client()->subscribers[{db, fake::type_of(key)}] = callback;
    return result;
}

int qv_mom_scan(qv_mom_client* client, uint32_t db, const ProtobufCMessage* key, int flags,
                qv_mom_msg_cb callback, void* arg) {
    int result =
        fake::record_call("qv_mom_scan", client, db, key,
                          fake::unusual("flags", flags) + (arg == nullptr ? "" : " with argument"));
    if (result == 0)
        fake::mom_client()->scanners[{db, fake::type_of(key)}] = callback;
    return result;
}

int qv_mom_publish(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
                   int reserved) {
    return fake::record_call("qv_mom_publish", client, db, record,
                             fake::unusual("flags", flags) + fake::unusual("reserved", reserved));
}

}  // extern "C"
