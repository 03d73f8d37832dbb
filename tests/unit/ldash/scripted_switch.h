// Both ends of the operator's shell: a scripted switch, and the program itself in another process,
// on pipes or on a terminal.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace ldash::test {

// Accepts one session on its own socket. A wait of more than twenty seconds fails the test
// instead of hanging.
class ScriptedSwitch {
 public:
    ScriptedSwitch();
    ~ScriptedSwitch();
    ScriptedSwitch(const ScriptedSwitch&) = delete;
    ScriptedSwitch& operator=(const ScriptedSwitch&) = delete;

    const std::string& path() const { return path_; }
    void accept();
    // Sends the line, or raw bytes. The first reply may be sent before its request.
    void say(const std::string& line) { send_bytes(line + "\n"); }
    void send_bytes(const std::string& bytes) const;
    // The next request, without its line end; "no request" when the session has ended.
    std::string request();
    // Everything that was requested until the session ended.
    std::vector<std::string> requests();
    // Closes the session without an answer.
    void hang_up();
    int session() const { return session_; }

 private:
    std::string folder_;
    std::string path_;
    int listener_;
    int session_ = -1;
    std::string input_;
};

struct Ended {
    int status;  // of the exit; -1 when the program had to be killed
    std::string out;
    std::string err;
};

// The program in a child process, with `input` on its standard input.
class Program {
 public:
    explicit Program(std::vector<std::string> arguments, const std::string& input = "");
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    Ended wait();

 private:
    pid_t child_;
    int out_;
    int err_;
};

// The program on a terminal.
class Terminal {
 public:
    // With `hangup_ignored` the program outlives its terminal, as under nohup.
    explicit Terminal(const std::string& socket, bool hangup_ignored = false);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // A terminal has no size before the first call.
    void resize(unsigned short rows, unsigned short columns) const;
    void type(const std::string& keys) const;
    // Everything shown since the last call, up to and including `text`.
    std::string until(const std::string& text);
    // Waits until the program reads each key as it is pressed. Before, the kernel handles the end
    // of input.
    void until_keys_are_taken() const;
    void close();
    // Waits for the end and returns the exit status; puts the remaining output into `rest`.
    int wait(std::string* rest = nullptr);

 private:
    bool read_more();

    pid_t child_;
    int screen_ = -1;
    std::string shown_;
};

}  // namespace ldash::test
