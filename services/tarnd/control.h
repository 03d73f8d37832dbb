// The control socket: a Unix stream socket, one JSON object a line. It shows what the service knows
// and asks for single probes; docs/loop-probes.md has the requests and the answers.
//
// Clients are limited in number and in what they may send or leave unread: a client that does not
// take its answers is dropped. One request of a client is answered at a time. Main thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform/base/event_loop.h"
#include "services/tarnd/sockets.h"
#include "services/tarnd/status_board.h"
#include "services/tarnd/status_json.h"

namespace qv::tarnd {

class Control {
 public:
    static constexpr size_t kMaxClients = 16;
    static constexpr size_t kMaxLine = 1024;      // of a request
    static constexpr size_t kMaxQueue = 1 << 20;  // bytes of events that a client has not read
    static constexpr std::chrono::seconds kIdleTimeout{30};  // with a client that does nothing
    static constexpr std::chrono::seconds kProbeTime{1};     // until a probe counts as lost
    static constexpr std::chrono::seconds kAcceptPause{1};
    static constexpr std::chrono::seconds kFileCheck{10};  // whether the socket's file is there

    struct Sources {
        std::function<PBridge__TarnCounters()> counters;
        // Asks the probing thread for one probe of the port; the answer comes as kAsked. False when
        // the thread takes nothing more now.
        std::function<bool(uint32_t ifx)> ask;
    };

    // Listens at `path`, mode 0600, in place of what is there. Throws std::runtime_error. The loop
    // must outlive the socket; the socket must live as long as the board.
    Control(EventLoop& loop, std::string path, StatusBoard& board, Sources sources);
    ~Control();
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    size_t clients() const { return clients_.size(); }

 private:
    struct Client {
        Descriptor fd;
        std::string input;
        std::string output;
        bool leaving = false;   // it is closed once the output has gone
        bool watching = false;  // it takes events
        bool showing = false;   // ports are still to be shown, those behind `shown`
        uint32_t shown = 0;
        uint32_t asked = 0;  // the port whose probe is under way
        int watched = 0;     // what `watch` waits for
        EventLoop::Handle watch;
        EventLoop::Handle idle_timer;
    };
    struct Asked {
        uint64_t client;
        bool sent = false;
        EventLoop::Handle timer;
    };

    void listen_again();
    void check_file();
    void put_back();
    void accept_some();
    void on_ready(uint64_t id, EventLoop::Ready ready);
    bool read_some(Client& client);
    void serve(uint64_t id);
    void answer(uint64_t id, Client& client, std::string_view line);
    void begin_show(Client& client, const Json& request);
    void begin_probe(uint64_t id, Client& client, const Json& request);
    void on_event(const BoardEvent& event);
    void on_asked(const BoardEvent& event);
    void on_returned(const BoardEvent& event);
    void end_probe(uint32_t ifx);
    void show_more(Client& client) const;
    bool flush(Client& client);
    void wait_for(uint64_t id, Client& client);
    void restart_idle_timer(uint64_t id, Client& client);
    static bool is_busy(const Client& client);
    static void say(Client& client, const Json& line);
    static void refuse(Client& client, const std::string& reason);

    EventLoop& loop_;
    const std::string path_;
    StatusBoard& board_;
    const Sources sources_;
    Descriptor listener_;
    uint64_t next_id_ = 1;
    std::map<uint64_t, Client> clients_;
    std::map<uint32_t, Asked> asked_;  // probes under way, by port
    EventLoop::Handle accept_watch_;
    EventLoop::Handle accept_timer_;
    std::string refusal_;  // why the file cannot be put back, as logged
    EventLoop::Handle check_timer_;
};

}  // namespace qv::tarnd
