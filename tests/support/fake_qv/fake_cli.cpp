// Command-line framework: registrations, output, and scripted results of executed lines.
#include <cstdarg>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

namespace fake {
namespace {

// Descriptors of fake sessions, far from real ones.
constexpr int FIRST_SESSION = 1001;

struct Answer {
    std::string output;
    int result = 0;
};

struct State {
    std::vector<Command> commands;
    std::map<std::string, DebugControl> debug_controls;
    ReloadStartHook reload_start = nullptr;
    ReloadEndHook reload_end = nullptr;
    ShowRunHook show_run = nullptr;
    std::mutex mutex;  // guards the fields below: the delivery thread uses them too
    std::string output;
    std::map<std::string, Answer> answers;
    int next_session = FIRST_SESSION;
    std::set<int> open_sessions;
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

Answer answer_to(const std::string& line) {
    std::lock_guard lock(state().mutex);
    auto found = state().answers.find(line);
    return found == state().answers.end() ? Answer{} : found->second;
}

}  // namespace

bool is_session(int descriptor) {
    std::lock_guard lock(state().mutex);
    return state().open_sessions.contains(descriptor) ||
           (descriptor >= FIRST_SESSION && descriptor < FIRST_SESSION + 100000);
}

int close_session(int descriptor) {
    bool open = false;
    {
        std::lock_guard lock(state().mutex);
        open = state().open_sessions.erase(descriptor) > 0;
    }
    enter("close", "close session " + std::to_string(descriptor) + (open ? "" : " not open"));
    return open ? 0 : -1;
}

void on_line(const std::string& line, const std::string& output, int result) {
    std::lock_guard lock(state().mutex);
    state().answers[line] = {output, result};
}

std::string take_cli_output() {
    std::lock_guard lock(state().mutex);
    std::string output;
    output.swap(state().output);
    return output;
}

std::vector<Command> commands() {
    return state().commands;
}

const cli_node* command_root(int chain, const std::string& description) {
    for (const Command& command : state().commands)
        if (command.chain == chain && command.description == description)
            return command.root;
    return nullptr;
}

const cli_node* interface_mode_root() {
    static const cli_node root{append_point_action, nullptr, nullptr, &Tno_alt, nullptr};
    return &root;
}

DebugControl debug_control(const std::string& name) {
    return state().debug_controls[name];
}
ReloadStartHook reload_start_hook() {
    return state().reload_start;
}
ReloadEndHook reload_end_hook() {
    return state().reload_end;
}
ShowRunHook show_run_hook() {
    return state().show_run;
}

}  // namespace fake

using fake::state;

extern "C" {

int cli_add_command(int chain, const cli_node* root, const char* description) {
    state().commands.push_back({chain, root, description});
    return static_cast<int>(
        fake::enter("cli_add_command",
                    "cli_add_command " + std::to_string(chain) + " " + fake::quoted(description)));
}

int cli_client_init(const char* name, qv_thread_master* master) {
    return static_cast<int>(
        fake::enter("cli_client_init", "cli_client_init " + fake::quoted_or_null(name) +
                                           (master == fake::master() ? "" : " wrong master")));
}

void cli_client_ready(void) {
    fake::enter("cli_client_ready", "cli_client_ready");
}

void cli_add_param_reload_start_hook(uint32_t (*hook)(uint32_t word)) {
    fake::enter("cli_add_param_reload_start_hook", "cli_add_param_reload_start_hook");
    state().reload_start = hook;
}

void cli_add_param_reload_end_hook(void (*hook)(void)) {
    fake::enter("cli_add_param_reload_end_hook", "cli_add_param_reload_end_hook");
    state().reload_end = hook;
}

void cli_interface_show_run_hook(int (*hook)(cli_pcdb* pcdb)) {
    fake::enter("cli_interface_show_run_hook", "cli_interface_show_run_hook");
    state().show_run = hook;
}

int sys_add_debug(const char* name, void (*control)(int operation)) {
    state().debug_controls[name] = control;
    return static_cast<int>(fake::enter("sys_add_debug", "sys_add_debug " + fake::quoted(name)));
}

void cli_printf(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = fake::vformat(format, arguments);
    va_end(arguments);
    fake::enter("cli_printf", "cli_printf " + fake::quoted(text));
    std::lock_guard lock(state().mutex);
    state().output += text;
}

void c2p_printf(cli_pcdb* pcdb, int indentation, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = fake::vformat(format, arguments);
    va_end(arguments);
    fake::enter("c2p_printf", std::string("c2p_printf ") + (pcdb == nullptr ? "null " : "") +
                                  std::to_string(indentation) + " " + fake::quoted(text));
}

void cli_change_mode(cli_pcdb* pcdb, const char* mode) {
    fake::enter("cli_change_mode", "cli_change_mode " + fake::quoted(mode));
    snprintf(pcdb->mode, sizeof pcdb->mode, "%s", mode);
}

const cli_node* cli_get_mode_root(const char* mode) {
    bool refused =
        fake::enter_refused("cli_get_mode_root", "cli_get_mode_root " + fake::quoted(mode));
    return refused || strcmp(mode, "interface") != 0 ? nullptr : fake::interface_mode_root();
}

int cli_walkthrought_node(const cli_node* root, cli_pcdb* pcdb) {
    std::string line = "cli_walkthrought_node mode=" + std::string(pcdb->mode) +
                       " ifx=" + std::to_string(pcdb->ifx) +
                       (root == fake::interface_mode_root() ? "" : " wrong root");
    return static_cast<int>(fake::enter("cli_walkthrought_node", line));
}

int cli_client_c2p_reform(void) {
    return static_cast<int>(fake::enter("cli_client_c2p_reform", "cli_client_c2p_reform"));
}

int cli_syn_config_notify(void) {
    return static_cast<int>(fake::enter("cli_syn_config_notify", "cli_syn_config_notify"));
}

int cli_sub_create_session(void) {
    int session = 0;
    {
        std::lock_guard lock(state().mutex);
        session = state().next_session++;
    }
    long result = fake::enter("cli_sub_create_session", "cli_sub_create_session", session);
    std::lock_guard lock(state().mutex);
    if (result >= 0)
        state().open_sessions.insert(static_cast<int>(result));
    if (result != session)
        state().next_session--;
    return static_cast<int>(result);
}

int cli_execute_cmd_buf_fd(int session, const char* line, const cli_mode* mode,
                           cli_output_cb output, void* user) {
    fake::Answer answer = fake::answer_to(line);
    long result =
        fake::enter("cli_execute_cmd_buf_fd",
                    "cli_execute_cmd_buf_fd " + std::to_string(session) + " " + fake::quoted(line) +
                        " " + mode->name + (mode->ifx == 0 ? "" : " " + std::to_string(mode->ifx)),
                    answer.result);
    if (!answer.output.empty())
        output(answer.output.data(), answer.output.size(), user);
    return static_cast<int>(result);
}

}  // extern "C"
