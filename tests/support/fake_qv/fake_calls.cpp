// The list of calls, scripted results, hooks, and children that end.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

namespace fake {
namespace {

struct Script {
    int calls = 0;
    bool always = false;
    long result = 0;
    std::map<int, long> at;  // call number, result
    std::function<void()> hook;
};

struct State {
    std::mutex mutex;
    Lines lines;
    std::map<std::string, Script> scripts;
};

// Never destroyed: threads of the agent may still call at exit.
State& state() {
    static auto* instance = new State;
    return *instance;
}

struct Outcome {
    bool scripted = false;
    long result = 0;
};

Outcome note(const std::string& name, const std::string& line) {
    State& s = state();
    Outcome outcome;
    std::function<void()> hook;
    {
        std::lock_guard lock(s.mutex);
        if (!line.empty())
            s.lines.push_back(line);
        Script& script = s.scripts[name];
        script.calls++;
        hook = script.hook;
        auto at = script.at.find(script.calls);
        if (at != script.at.end())
            outcome = {true, at->second};
        else if (script.always)
            outcome = {true, script.result};
    }
    if (hook)
        hook();
    return outcome;
}

std::string first_word(const std::string& line) {
    return line.substr(0, line.find(' '));
}

bool is_one_of(const std::string& line, const std::vector<std::string>& names) {
    for (const std::string& name : names)
        if (first_word(line) == name)
            return true;
    return false;
}

Lines selected(const std::vector<std::string>& names, bool wanted) {
    Lines result;
    for (const std::string& line : calls())
        if (is_one_of(line, names) == wanted)
            result.push_back(line);
    return result;
}

int child_pipe = -1;

void write_all(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(child_pipe, text.data() + done, text.size() - done);
        if (n <= 0)
            return;
        done += static_cast<size_t>(n);
    }
}

// Lines contain no line end: their texts are escaped.
void send_calls() {
    for (const std::string& line : calls())
        write_all(line + "\n");
}

[[noreturn]] void run_child(const std::function<void()>& body) {
    clear_calls();
    std::atexit(send_calls);
    body();
    send_calls();
    write_all("(returned)\n");
    _exit(0);
}

std::string read_all(int descriptor) {
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(descriptor, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(n));
    return text;
}

}  // namespace

Lines calls() {
    std::lock_guard lock(state().mutex);
    return state().lines;
}

Lines take_calls() {
    std::lock_guard lock(state().mutex);
    Lines lines;
    lines.swap(state().lines);
    return lines;
}

Lines calls_of(const std::vector<std::string>& names) {
    return selected(names, true);
}
Lines calls_without(const std::vector<std::string>& names) {
    return selected(names, false);
}
void clear_calls() {
    take_calls();
}

void record(const std::string& line) {
    std::lock_guard lock(state().mutex);
    state().lines.push_back(line);
}

int count(const std::string& name) {
    std::lock_guard lock(state().mutex);
    return state().scripts[name].calls;
}

void fail(const std::string& name, long result) {
    std::lock_guard lock(state().mutex);
    state().scripts[name].always = true;
    state().scripts[name].result = result;
}

void fail_nth(const std::string& name, int nth, long result) {
    std::lock_guard lock(state().mutex);
    Script& script = state().scripts[name];
    script.at[script.calls + nth] = result;
}

void heal(const std::string& name) {
    std::lock_guard lock(state().mutex);
    state().scripts[name].always = false;
    state().scripts[name].at.clear();
}

void on_call(const std::string& name, std::function<void()> hook) {
    std::lock_guard lock(state().mutex);
    state().scripts[name].hook = std::move(hook);
}

Ending run_in_child(const std::function<void()>& body) {
    int ends[2];
    if (pipe(ends) != 0)
        std::abort();
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        child_pipe = ends[1];
        run_child(body);
    }
    close(ends[1]);
    std::string text = read_all(ends[0]);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);

    Ending ending{WIFEXITED(status) ? WEXITSTATUS(status) : -1, false, {}, {}};
    for (size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
        std::string line = text.substr(begin, end - begin);
        if (line == "(returned)")
            ending.returned = true;
        else
            ending.calls.push_back(line);
    }
    for (const std::string& line : ending.calls)
        if (first_word(line) == "zlog")
            ending.zlog.push_back(line);
    return ending;
}

long enter(const std::string& name, const std::string& line, long normal) {
    Outcome outcome = note(name, line);
    return outcome.scripted ? outcome.result : normal;
}

bool enter_refused(const std::string& name, const std::string& line) {
    return note(name, line).scripted;
}

std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (char c : text) {
        switch (c) {
            case '\n':
                result += "\\n";
                break;
            case '\r':
                result += "\\r";
                break;
            case '\t':
                result += "\\t";
                break;
            case '"':
                result += "\\\"";
                break;
            case '\\':
                result += "\\\\";
                break;
            default:
                if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) {
                    char code[8];
                    snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
                    result += code;
                } else {
                    result += c;
                }
        }
    }
    return result + "\"";
}

std::string quoted_or_null(const char* text) {
    return text == nullptr ? "null" : quoted(text);
}

std::string mask_line_number(const std::string& text) {
    size_t colon = text.find(':');
    size_t close = text.find('>');
    bool prefix = !text.empty() && text[0] == '<' && close != std::string::npos && colon < close &&
                  colon + 1 < close && text.find_first_not_of("0123456789", colon + 1) == close;
    return prefix ? text.substr(0, colon + 1) + "#" + text.substr(close) : text;
}

std::string vformat(const char* format, __builtin_va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    int length = vsnprintf(nullptr, 0, format, arguments);
    std::string text(static_cast<size_t>(length) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    return text;
}

std::string unusual(const char* name, long value) {
    return value == 0 ? std::string() : std::string(" ") + name + "=" + std::to_string(value);
}

}  // namespace fake
