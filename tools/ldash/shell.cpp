#include "shell.h"

#include <histedit.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "marker.h"
#include "pager.h"
#include "screen.h"

namespace ldash {
namespace {

constexpr int kHistoryLines = 500;
constexpr wchar_t kKillLine = 0x15;  // bound to "forget the line" by libedit

volatile std::sig_atomic_t g_interrupted = 0;

// The state behind libedit's callbacks; it is their client data.
struct Shell {
    Connection& connection;
    std::string prompt = "lda# ";
    std::optional<int> length = {};  // rows of a page as the operator set them; 0: no pages
    std::string trouble;             // set by a callback that lost the connection
    sigset_t while_waiting;          // the signals that are blocked while it waits for a key
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

// Results of wait_for_key() other than a key.
constexpr int kEndOfInput = -1;  // also when the switch is lost
constexpr int kInterrupt = -2;

// Waits for a key. Shows the messages that the switch sends meanwhile, and calls `redraw` after
// them.
int wait_for_key(Shell& shell, const std::function<void()>& redraw) {
    pollfd waiting[] = {{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                        {.fd = shell.connection.fd(), .events = POLLIN, .revents = 0}};
    while (shell.trouble.empty()) {
        const int ready = ::ppoll(waiting, 2, nullptr, &shell.while_waiting);
        if (g_interrupted != 0) {
            g_interrupted = 0;
            return kInterrupt;
        }
        if (ready > 0 && waiting[1].revents != 0) {
            try {
                shell.connection.take_messages();
            } catch (const std::runtime_error& problem) {
                shell.trouble = problem.what();
                return kEndOfInput;
            }
            redraw();
        }
        if (ready > 0 && waiting[0].revents != 0) {
            unsigned char byte = 0;
            const ssize_t size = ::read(STDIN_FILENO, &byte, 1);
            return size == 1 ? byte : kEndOfInput;
        }
    }
    return kEndOfInput;
}

// While it exists, the terminal delivers each key at once and does not echo it.
class SingleKeys {
 public:
    SingleKeys() : known_(::tcgetattr(STDIN_FILENO, &before_) == 0) {
        termios single = before_;
        single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        single.c_cc[VMIN] = 1;
        single.c_cc[VTIME] = 0;
        set(single);
    }
    ~SingleKeys() { set(before_); }
    SingleKeys(const SingleKeys&) = delete;
    SingleKeys& operator=(const SingleKeys&) = delete;

 private:
    // This fails on a terminal that is gone: the next wait for a key ends the shell.
    void set(const termios& settings) const {
        if (known_) {
            static_cast<void>(::tcsetattr(STDIN_FILENO, TCSADRAIN, &settings));
        }
    }

    termios before_{};
    const bool known_;
};

// Shows the answer of the switch, on a terminal one page at a time.
void show_output(Shell& shell, std::string_view output) {
    Screen screen = screen_of(STDOUT_FILENO);
    if (shell.length && ::isatty(STDOUT_FILENO) != 0) {
        screen.rows = static_cast<size_t>(*shell.length);
    }
    // From here on: a key pressed right after the prompt appears must not be echoed.
    std::optional<SingleKeys> keys;
    if (screen.rows != 0) {
        keys.emplace();
    }
    show_paged(output, screen, [&] { return wait_for_key(shell, show_more_prompt); });
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
    std::fputs("?\n", stdout);
    show_output(shell_of(editor), text.empty() ? "  (nothing fits)\n" : text);
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
    std::string list = "\n";
    for (const std::string& word : words) {
        list += "  " + word + "\n";
    }
    show_output(shell_of(editor), list);
    return CC_REDISPLAY;
}

// Shows what a line printed. A marker points at the wrong word, and an incomplete line is followed
// by the words that could continue it.
void show(Shell& shell, const std::string& line, const Reply& reply) {
    std::string text;
    if (reply.wrong_at) {
        constexpr size_t kUsualColumns = 80;
        const size_t columns = screen_of(STDOUT_FILENO).columns;
        const size_t at = std::min(*reply.wrong_at, line.size());
        text = marker(shell.prompt, line, at, columns > 0 ? columns : kUsualColumns);
    }
    text += reply.output;
    if (reply.wrong_at && line.find_first_not_of(" \t", *reply.wrong_at) == std::string::npos) {
        text += shell.connection.ask("help", line + " ").output;
    }
    show_output(shell, text);
}

int next_key(EditLine* editor, wchar_t* key) {
    const auto redraw = [editor] {
        el_set(editor, EL_REFRESH);
    };
    const int pressed = wait_for_key(shell_of(editor), redraw);
    if (pressed == kEndOfInput) {
        return 0;
    }
    *key = pressed == kInterrupt ? kKillLine : static_cast<wchar_t>(pressed);
    return 1;
}

// Interrupts are delivered only while the shell waits for a key. Between the check of
// g_interrupted and the wait, one would go unnoticed until the next key.
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

// The next line, null at the end of the input. By itself the editor would show its prompt first and
// then take the terminal over: the kernel would echo a key that is pressed in between.
const char* next_line(EditLine* editor, int& size) {
    el_set(editor, EL_PREP_TERM, 1);
    return el_gets(editor, &size);
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
    // An empty line fetches only the prompt.
    shell.prompt = connection.ask("exec", "").prompt;
    int size = 0;
    while (const char* text = next_line(editor.get(), size)) {
        std::string line(text, static_cast<size_t>(std::max(size, 0)));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
            line.pop_back();
        }
        if (!line.empty()) {
            HistEvent event;
            history(lines.get(), &event, H_ENTER, line.c_str());
        }
        const Reply reply = connection.ask("exec", line);
        shell.length = reply.length;
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
