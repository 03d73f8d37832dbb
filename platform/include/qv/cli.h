// Command-line framework: parse trees, handlers, sessions, running configuration.
//
// A command tree is made of static parse nodes. The framework walks it for four purposes: to
// execute a line, to offer help and completion, and to generate the running configuration. A node's
// action decides what the node does in a walk; handlers run only for execution (end-of-line nodes)
// and generation (configuration-to-print nodes). Unless a call says otherwise it belongs to the
// main thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qv/thread.h"

extern "C" {

// ---- Parse context ----

inline constexpr size_t CLI_MODE_NAME_BYTES = 32;
inline constexpr size_t CLI_NUMBER_SLOTS = 8;
inline constexpr size_t CLI_WORD_SLOTS = 4;
inline constexpr size_t CLI_WORD_BYTES = 128;

// cli_pcdb::flags
inline constexpr unsigned long CLI_FLAG_SHOW_RUN = 0x02;  // generating, for show running-config
inline constexpr unsigned long CLI_FLAG_HELP = 0x04;      // help or completion
inline constexpr unsigned long CLI_FLAG_C2P = 0x10;       // generating, for the saved configuration
inline constexpr unsigned long CLI_FLAGS_GENERATING = CLI_FLAG_SHOW_RUN | CLI_FLAG_C2P;  // 18
// cli_pcdb::prefix
inline constexpr uint32_t CLI_PREFIX_NO = 0x1;
inline constexpr uint32_t CLI_PREFIX_DEFAULT = 0x2;  // a handler gets it with CLI_PREFIX_NO

// A handler's context: one command, or one pass of the generation. Valid during the call.
struct cli_pcdb {
    unsigned long flags;     // CLI_FLAG_*
    uint32_t prefix;         // CLI_PREFIX_*
    uint32_t ifrange_types;  // mode "ifrange": kinds of ports in the range; types 2 to 10 have a
                             // bit of 0x18050187, no other type has
    uint64_t ifx;            // interface modes: the port; 0 elsewhere
    char mode[CLI_MODE_NAME_BYTES];             // "exec", "config", "interface", "ifrange"
    int64_t number[CLI_NUMBER_SLOTS];           // number slots, zeroed before each line
    char word[CLI_WORD_SLOTS][CLI_WORD_BYTES];  // word slots, emptied before each line
};

// Main thread, during the walk. On execution the handler's result is the command's: 0 for done, any
// other for refused, with the reason printed by cli_printf. In a generation it is ignored. A
// handler may execute other lines, and must not keep `pcdb`.
using cli_handler = int (*)(cli_pcdb* pcdb);
// Non-zero for yes. May be called for any line that is typed, so it must be quick and change
// nothing.
using cli_test_func = int (*)(cli_pcdb* pcdb);

// ---- Parse nodes ----

struct cli_walk;  // one walk through a tree, the framework's own
struct cli_node;
using cli_action = void (*)(cli_walk* walk, const cli_node* node);

struct cli_node {
    cli_action action;
    const void* argument;         // block of the action, below; null where it needs none
    const cli_node* accept;       // taken when the action matches
    const cli_node* alternative;  // tried when it does not; &Tno_alt ends a list
    const void* reserved;         // null
};

struct cli_keyword_arg {
    const char* keyword;
    const char* help;
    uint32_t zero;
    uint32_t attribute[2];  // for the framework's accounting; not evaluated in a walk
    uint32_t word[5];
    const char* name;  // the keyword again
    uint32_t one;
};

struct cli_number_arg {
    const char* help;
    int64_t low, high;  // both included
    uint32_t zero;
    uint32_t flags;
    uint32_t slot;  // index in cli_pcdb::number
};

struct cli_word_arg {
    const char* name;  // shown in help, such as "INTERFACE"
    const char* help;
    uint32_t slot;  // index in cli_pcdb::word
    bool rest;      // takes the rest of the line, blanks included
};

struct cli_eol_arg {
    uint32_t one;
    cli_handler handler;
};

struct cli_c2p_arg {
    cli_handler handler;
};

struct cli_test_arg {
    const cli_node* accept;
    const cli_node* alternative;
    cli_test_func test;
};

extern const cli_node Tno_alt;

// Matches a keyword or a unique prefix of it.
void common_keyword_action(cli_walk* walk, const cli_node* node);
// Matches a decimal number between the bounds.
void common_number_action(cli_walk* walk, const cli_node* node);
// Matches any one word, or the rest of the line.
void common_word_action(cli_walk* walk, const cli_node* node);
// Matches the end of the line: the handler executes the command.
void eol_action(cli_walk* walk, const cli_node* node);
// Goes to `accept` when the line has the "no" (or "default") prefix, else to `alternative`.
void noprefix_action(cli_walk* walk, const cli_node* node);
void defaultprefix_action(cli_walk* walk, const cli_node* node);
// Calls the handler in a generation, once in each section. Otherwise goes on to `accept`.
void c2p_action(cli_walk* walk, const cli_node* node);
// The root of a tree under an attachment point: goes on to `accept`, then to the next tree.
void append_point_action(cli_walk* walk, const cli_node* node);
// Goes to the block's accept node when the test function returns non-zero, else to the alternative.
void test_expression_action(cli_walk* walk, const cli_node* node);

// Attachment points.
inline constexpr int CLI_CHAIN_SHOW = 6;              // "show ..." of mode exec
inline constexpr int CLI_CHAIN_DEBUG = 17;            // "[no] debug ..." of mode exec
inline constexpr int CLI_CHAIN_CONFIG = 28;           // mode config
inline constexpr int CLI_CHAIN_INTERFACE = 57;        // modes interface and ifrange
inline constexpr int CLI_CHAIN_INTERFACE_STORM = 59;  // the same, after chain 57

// Adds a tree at an attachment point. The nodes must never be destroyed. 0, or -1 for an unknown
// point.
int cli_add_command(int chain, const cli_node* root, const char* description);

// ---- Client ----

// Attaches the process to the command-line server on `master`. 0, or -1.
int cli_client_init(const char* name, qv_thread_master* master);

// Tells the framework that the process accepts commands. The saved configuration is replayed
// through the command trees, from the thread master, between the reload hooks. A later call
// announces again: the hooks run again, the replay is not repeated.
void cli_client_ready(void);

// Hooks before and after the replay, on the main thread. `word` is 0; the result is ignored.
void cli_add_param_reload_start_hook(uint32_t (*hook)(uint32_t word));
void cli_add_param_reload_end_hook(void (*hook)(void));
// Writes the interface sections of the running configuration in place of the framework. The hook's
// result is ignored.
void cli_interface_show_run_hook(int (*hook)(cli_pcdb* pcdb));

// A debug switch of "[no] debug NAME" and "show debugging": `control` is called with 1 for on, 2
// for off, 3 to print its state. 0 or -1.
int sys_add_debug(const char* name, void (*control)(int operation));

// Output of the command being executed; dropped when none is.
void cli_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// One line of the configuration being generated, ended exactly once, whether or not the text has a
// line end. In a section it is indented by `indentation` blanks; global lines are not indented.
void c2p_printf(cli_pcdb* pcdb, int indentation, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// For interface_show_run hooks: changes the mode of the context, and walks a tree for generation.
void cli_change_mode(cli_pcdb* pcdb, const char* mode);
const cli_node* cli_get_mode_root(const char* mode);  // null for an unknown mode
int cli_walkthrought_node(const cli_node* root, cli_pcdb* pcdb);

// Asks for the running configuration to be generated again. Never waits. Any thread, any lock. 0,
// or -1 when there is no memory: then the next change asks for it.
int cli_client_c2p_reform(void);
// Tells the configuration system that the running configuration has changed: it will be saved soon.
// Never waits. Any thread, any lock. 0 or -1, as above.
int cli_syn_config_notify(void);

// ---- Sessions of programs ----

// The mode in which a line is executed.
struct cli_mode {
    char name[CLI_MODE_NAME_BYTES];  // "config" or "interface"
    int64_t ifx;                     // mode interface: the port
};

// Called at most once, after the command, on the thread that executes the line. The text belongs to
// the framework and is valid during the call.
using cli_output_cb = void (*)(const char* text, size_t length, void* user);

// Opens a session inside the process and returns its descriptor, which the caller closes with
// close(2); negative on failure. The framework keeps some descriptors in reserve, so this works
// when the process has run out of them. Any thread; never waits.
int cli_sub_create_session(void);

// Executes one line in `mode` as if it had been typed there and hands its output, if there is any,
// to `output`. Waits for the end of the command; from the main thread the line runs inline. Returns
// the command's result, negative when it could not be executed. Any thread, no lock held.
int cli_execute_cmd_buf_fd(int session, const char* line, const cli_mode* mode,
                           cli_output_cb output, void* user);

}  // extern "C"
