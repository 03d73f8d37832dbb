// Controls of the fake platform: an in-memory implementation of qv/*.h for tests of the agent.
//
// Every platform call of the agent becomes one readable line in one list, in the order of the
// calls, whatever the thread: "cli_client_c2p_reform", "qv_thread_add_timer 60",
// "qv_mom_set db=4 p_app.lda_loop_entry index{name=\"swp1\"} policy=1". Texts are quoted with C
// escapes. Records show only fields that differ from their default, in the order of the
// descriptor. Arguments that are always 0 or null are shown only when they are not.
// Any call can be made to fail by name. Nothing happens by itself: a test fires timers, delivers
// events and runs connect callbacks. The state lives as long as the process (one test).
#pragma once

#include <pthread.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "qv/bridge.h"
#include "qv/cli.h"
#include "qv/lsm.h"
#include "qv/mom.h"
#include "qv/netconf.h"
#include "qv/rdnd.h"
#include "qv/thread.h"
#include "qv/zlog.h"

namespace fake {

using Lines = std::vector<std::string>;

// ---- The list of calls ----

Lines calls();
// Returns the calls so far and empties the list.
Lines take_calls();
// The calls whose name (the first word) is one of `names`, in order.
Lines calls_of(const std::vector<std::string>& names);
// The calls whose name is none of `names`.
Lines calls_without(const std::vector<std::string>& names);
void clear_calls();
// Adds a line of the test, such as a mark between two steps.
void record(const std::string& line);
// How often a call was made since the start of the process.
int count(const std::string& name);

// ---- Results by call name ----

// Makes every further call of `name` return `result`. A call that creates something (or allocates)
// returns null instead.
void fail(const std::string& name, long result = -1);
// The same only for the nth call from now on (1 is the next one).
void fail_nth(const std::string& name, int nth, long result = -1);
void heal(const std::string& name);
// Fails the nth allocation with calloc from now on, of the test executable's own code.
void fail_calloc(int nth);
// The same for strdup.
void fail_strdup(int nth);
// Runs `hook` at every call of `name`, after its line was recorded; null removes the hook. The
// calls of pthread_mutex_* continue until the process ends: the test framework makes some itself.
void on_call(const std::string& name, std::function<void()> hook);

// ---- A process that ends ----

struct Ending {
    int status;     // exit status; -1 when ended by a signal
    bool returned;  // `body` returned
    Lines calls;    // the calls made in the child
    Lines zlog;     // the log lines among them, as texts of zlog_lines()
};
// Runs `body` in a child process and reports how it ended and what it called.
Ending run_in_child(const std::function<void()>& body);

// ---- Event loop and timers ----

struct Timer {
    qv_thread* handle;
    int (*func)(qv_thread*);
    void* arg;
    long seconds;
    std::string name;  // qv_thread_insert_timer only
    qv_thread** slot;  // qv_thread_insert_timer only
};
qv_thread_master* master();
// Pending timers, in the order in which they were armed.
std::vector<Timer> timers();
// Ends a pending timer, runs its callback and returns the callback's result.
int fire(qv_thread* handle);
// Fires the oldest pending timer with this callback.
int fire(int (*func)(qv_thread*));
// Queues work for qv_thread_fetch, which returns null when there is none.
void queue_work(std::function<void()> work);

// ---- Object database ----

// The client that qv_mom_client_init returns.
qv_mom_client* mom_client();
struct MomSession {
    qv_mom_session_cb connect = nullptr;
    qv_mom_session_cb reconnect = nullptr;
    qv_mom_session_cb disconnect = nullptr;
    void* connect_arg = nullptr;
    void* reconnect_arg = nullptr;
    void* disconnect_arg = nullptr;
};
MomSession mom_session(uint32_t db);
// Run the registered callback; return its result, or -1000 when there is none.
int mom_connect(uint32_t db);
int mom_reconnect(uint32_t db);
int mom_disconnect(uint32_t db);
// The callback of a subscription (or of the last scan), null when there is none.
qv_mom_msg_cb mom_subscriber(uint32_t db, const std::string& type);
qv_mom_msg_cb mom_scanner(uint32_t db, const std::string& type);
// The descriptor that came with the last qv_mom_set, null when it was left out.
const ProtobufCMessageDescriptor* mom_set_descriptor();
// Delivers a message to the subscriber; returns the callback's result, or -1000 when there is none.
int mom_message(uint32_t db, const std::string& type, int cmd, int oper,
                const ProtobufCMessage* value);
// The text of a record in the lines: "p_app.lda_loop_entry index{name=\"swp1\"} policy=1".
std::string render(const ProtobufCMessage* record);

// ---- Ports ----

struct Port {
    uint32_t ifx = 0;
    std::string name = {};
    uint32_t type = LSM_TYPE_ETHERNET;
    uint32_t flags = 0;                                  // lsm_if_get_flags
    uint32_t intfcb_flags = LSM_INTFCB_FLAG_SWITCHPORT;  // control block
    uint32_t mode = SWPORT_MODE_ACCESS;
    uint32_t phyid = 0;
};
// Adds a port, or replaces the one with this index.
void add_port(const Port& port);
// Adds port `ifx` with the name "swp<ifx>", phyid ifx + 100 and this mode.
void add_port(uint32_t ifx, uint32_t mode = SWPORT_MODE_ACCESS);
void remove_port(uint32_t ifx);
// Leaves a port without a forwarding-plane id.
void unmap_port(uint32_t ifx);

void lsm_connect();
// Delivers an event to the handler of a class. False when there is none.
bool lsm_event(int event_class, uint32_t event, const void* message);
lsm_event_handler lsm_handler(int event_class);

void bridge_connect();
bool bridge_event(uint32_t event, const void* payload);
bridge_event_set bridge_selection();
bridge_event_handler bridge_handler();

// ---- Command line ----

// Sets the output and result of an executed line.
void on_line(const std::string& line, const std::string& output, int result = 0);
// Everything written with cli_printf, joined.
std::string take_cli_output();

struct Command {
    int chain;
    const cli_node* root;
    std::string description;
};
// Trees added with cli_add_command, in that order.
std::vector<Command> commands();
const cli_node* command_root(int chain, const std::string& description);
// The node that leads to the tree of mode "interface".
const cli_node* interface_mode_root();
using DebugControl = void (*)(int operation);
DebugControl debug_control(const std::string& name);
using ReloadStartHook = uint32_t (*)(uint32_t);
using ReloadEndHook = void (*)();
using ShowRunHook = int (*)(cli_pcdb*);
ReloadStartHook reload_start_hook();
ReloadEndHook reload_end_hook();
ShowRunHook show_run_hook();

// Gives a handler or node a name for tree().
void name(const void* thing, const std::string& text);
// A tree as text: one line for each node, its accept node indented by two blanks below it, then its
// alternative with a leading "else ". Keyword lines show all words of the block:
//     keyword "detail" ["detail info"] 0 30,0 1,2,0,0,0 "detail" 1
std::string tree(const cli_node* root);

// ---- Log files and the rest ----

struct ZlogLine {
    std::string file;
    std::string function;
    long line;
    int level;
    std::string text;  // as written
};
std::vector<ZlogLine> zlog_lines();
// The line of a log text: zlog(40, "main", "ready\n") is
// "zlog 40 main \"<main:#> ready\\n\"".
std::string zlog(int level, const std::string& function, const std::string& text);
std::string info(const std::string& function, const std::string& text);   // level 40
std::string warn(const std::string& function, const std::string& text);   // level 80
std::string error(const std::string& function, const std::string& text);  // level 100
// The category that qv_zlog_init returns; logging needs it in the agent's category.
qv_zlog_category* zlog_category();

struct Registration {
    rdnd_reg reg{};
    std::vector<uint32_t> dbs;
};
Registration rdnd_registration();

// The value of a capability; absent keys give the fallback.
void capability(const std::string& key, int32_t value);

// ---- C library ----

// Content of a file that the agent opens for reading; other paths are real.
void file(const std::string& path, const std::string& content);
// A path that cannot be opened.
void no_file(const std::string& path);
// Files of file() that are open now.
int open_files();

// Threads of the agent are recorded and start only here.
int held_threads();
void start_threads();

// Runs `hook` after every lock (true) and before every unlock (false) of this mutex, on the thread
// that holds it. A null mutex removes the hook. Set while no other thread uses the mutex.
void on_lock(pthread_mutex_t* mutex, std::function<void(bool taken)> hook);

// Timed waits of the agent never time out by themselves. Blocks until the waiting thread waits and
// `nothing_to_do` (called with the waited mutex held) says that it will go on waiting.
void wait_until_idle(const std::function<bool()>& nothing_to_do);
// Lets the wait in progress end with ETIMEDOUT.
void let_wait_time_out();
// Number of timed waits begun so far; the deadline of the latest one and the clock reading at it.
int timed_waits();
timespec last_deadline();
timespec last_wait_started();
// Runs `hook` in place of every signal of a condition variable: 0 lets the signal through, any
// other result is returned to the agent and the signal is lost. Signals make no line.
void on_signal(std::function<int()> hook);

}  // namespace fake
