#include "shell.h"

#include <histedit.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "marker.h"

namespace ldash {
namespace {

constexpr int kHistoryLines = 500;
constexpr wchar_t kKillLine = 0x15;  // bound to "forget the line" by libedit

volatile std::sig_atomic_t g_interrupted = 0;

// The state behind libedit's callbacks; it is their client data.
struct Shell {
    Connection& connection;
    std::string prompt = "lda# ";
    std::string trouble;     // set by a callback that lost the connection
    sigset_t while_waiting;  // the signals that are blocked while it waits for a key
};

Shell& shell_of(EditLine* editor) {
    Shell* shell = nullptr;
    el_get(editor, EL_CLIENTDATA, &shell);
    return *shell;
}

char* show_prompt(EditLine* editor) {
    return shell_of(editor).prompt.data();
}

std::string typed(EditLine* editor) {
    const LineInfo* line = el_line(editor);
    return {line->buffer, line->cursor};
}

// Asks the switch about the line so far; an empty text when the connection is lost.
std::string ask(EditLine* editor, const char* kind) {
    Shell& shell = shell_of(editor);
    try {
        return shell.connection.ask(kind, typed(editor)).output;
    } catch (const std::runtime_error& problem) {
        shell.trouble = problem.what();
        return {};
    }
}

unsigned char help(EditLine* editor, int) {
    const std::string text = ask(editor, "help");
    std::printf("?\n%s", text.empty() ? "  (nothing fits)\n" : text.c_str());
    return CC_REDISPLAY;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string common_start(const std::vector<std::string>& words) {
    std::string common = words.front();
    for (const std::string& word : words) {
        const auto stop = std::mismatch(common.begin(), common.end(), word.begin(), word.end());
        common.erase(stop.first, common.end());
    }
    return common;
}

unsigned char complete(EditLine* editor, int) {
    const std::vector<std::string> words = lines_of(ask(editor, "complete"));
    if (words.empty()) {
        return CC_REFRESH_BEEP;
    }
    const std::string line = typed(editor);
    const size_t last = line.find_last_of(" \t");
    const size_t have = last == std::string::npos ? line.size() : line.size() - last - 1;
    std::string more = common_start(words);
    more.erase(0, std::min(have, more.size()));
    if (words.size() == 1) {
        more += ' ';
    }
    if (!more.empty()) {
        el_insertstr(editor, more.c_str());
        return CC_REFRESH;
    }
    std::putchar('\n');
    for (const std::string& word : words) {
        std::printf("  %s\n", word.c_str());
    }
    return CC_REDISPLAY;
}

size_t columns_of_terminal() {
    winsize size{};
    constexpr size_t kUsual = 80;
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

// Shows what a line printed. Under a line that is no command a marker shows where it goes wrong,
// and under one that is not finished stands what could follow.
void show(Shell& shell, const std::string& line, const Reply& reply) {
    if (reply.wrong_at) {
        const size_t at = std::min(*reply.wrong_at, line.size());
        std::fputs(marker(shell.prompt, line, at, columns_of_terminal()).c_str(), stdout);
    }
    std::fputs(reply.output.c_str(), stdout);
    if (reply.wrong_at && line.find_first_not_of(" \t", *reply.wrong_at) == std::string::npos) {
        std::fputs(shell.connection.ask("help", line + " ").output.c_str(), stdout);
    }
    std::fflush(stdout);
}

// Waits for a key; shows what the switch has to say meanwhile.
int next_key(EditLine* editor, wchar_t* key) {
    Shell& shell = shell_of(editor);
    pollfd waiting[] = {{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                        {.fd = shell.connection.fd(), .events = POLLIN, .revents = 0}};
    while (shell.trouble.empty()) {
        const int ready = ::ppoll(waiting, 2, nullptr, &shell.while_waiting);
        if (g_interrupted != 0) {
            g_interrupted = 0;
            *key = kKillLine;
            return 1;
        }
        if (ready > 0 && waiting[1].revents != 0) {
            try {
                shell.connection.take_messages();
            } catch (const std::runtime_error& problem) {
                shell.trouble = problem.what();
                return 0;
            }
            el_set(editor, EL_REFRESH);
        }
        if (ready > 0 && waiting[0].revents != 0) {
            unsigned char byte = 0;
            const ssize_t size = ::read(STDIN_FILENO, &byte, 1);
            *key = byte;
            return size == 1 ? 1 : 0;
        }
    }
    return 0;
}

// An interrupt comes in while the shell waits for a key and at no other time: between a look at
// g_interrupted and the wait it would be noticed with the next key only.
void catch_interrupts(Shell& shell) {
    struct sigaction action {};
    action.sa_handler = [](int) {
        g_interrupted = 1;
    };
    sigaction(SIGINT, &action, nullptr);
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    sigprocmask(SIG_BLOCK, &interrupt, &shell.while_waiting);
    sigdelset(&shell.while_waiting, SIGINT);
}

struct EditorEnd {
    void operator()(EditLine* editor) const { el_end(editor); }
};
struct HistoryEnd {
    void operator()(History* history) const { history_end(history); }
};

void prepare(EditLine* editor, History* lines, Shell& shell) {
    HistEvent event;
    history(lines, &event, H_SETSIZE, kHistoryLines);
    history(lines, &event, H_SETUNIQUE, 1);
    el_set(editor, EL_CLIENTDATA, &shell);
    el_set(editor, EL_PROMPT, show_prompt);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_HIST, history, lines);
    el_set(editor, EL_GETCFN, next_key);
    el_set(editor, EL_ADDFN, "switch-help", "What can be typed here", help);
    el_set(editor, EL_ADDFN, "switch-complete", "Complete the word", complete);
    el_set(editor, EL_BIND, "?", "switch-help", nullptr);
    el_set(editor, EL_BIND, "^I", "switch-complete", nullptr);
}

}  // namespace

void run_shell(Connection& connection) {
    const std::unique_ptr<History, HistoryEnd> lines(history_init());
    const std::unique_ptr<EditLine, EditorEnd> editor(el_init("ldash", stdin, stdout, stderr));
    if (!lines || !editor) {
        throw std::runtime_error("the terminal cannot be used");
    }
    Shell shell{.connection = connection, .trouble = {}, .while_waiting = {}};
    prepare(editor.get(), lines.get(), shell);
    catch_interrupts(shell);
    connection.on_message = [](const std::string& text) {
        std::printf("\r%s\n", text.c_str());
        std::fflush(stdout);
    };
    // An empty line asks for nothing but the prompt.
    shell.prompt = connection.ask("exec", "").prompt;
    int size = 0;
    while (const char* text = el_gets(editor.get(), &size)) {
        std::string line(text, static_cast<size_t>(std::max(size, 0)));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
            line.pop_back();
        }
        if (!line.empty()) {
            HistEvent event;
            history(lines.get(), &event, H_ENTER, line.c_str());
        }
        const Reply reply = connection.ask("exec", line);
        show(shell, line, reply);
        shell.prompt = reply.prompt;
        if (reply.end) {
            return;
        }
    }
    std::putchar('\n');
    if (!shell.trouble.empty()) {
        throw std::runtime_error(shell.trouble);
    }
}

}  // namespace ldash
