// A client is read while it is not busy: not while ports are still to be shown, a probe is under
// way, or answers wait to be read. So its input never grows beyond a line and what one read takes.
// A client that watches is read only to notice that it has gone.
//
// Functions that may close a client take its number, and the client is looked up again behind them.
#include "services/tarnd/control.h"

#include <net/if.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/base/message_log.h"
#include "services/tarnd/port_name.h"

namespace qv::tarnd {
namespace {

constexpr int kBacklog = 16;
constexpr size_t kReadBytes = 4096;
constexpr size_t kShowBytes = 32768;  // answers that are made ahead of the client
constexpr int kRead = 1;
constexpr int kWrite = 2;

std::string line_of(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string text_of(const Json& request, const char* key) {
    const auto found = request.find(key);
    return found != request.end() && found->is_string() ? found->get<std::string>() : "";
}

Descriptor listen_at(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error(path + ": " + std::strerror(ENAMETOOLONG));
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    unlink(path.c_str());  // an earlier process has left it: the lock on the bridge is ours
    // Nobody can connect before listen(), when the mode is set.
    if (fd.get() < 0 ||
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 || listen(fd.get(), kBacklog) != 0) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    return fd;
}

bool is_socket(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// The mode of the socket keeps others out; this also does when somebody has changed it.
bool may_connect(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == geteuid());
}

const char* reason_of(int error) {
    switch (error) {
        case ENODEV:
            return "the port is not in the bridge";
        case EPERM:
            return "loop detection is off on the port";
        case ENETDOWN:
            return "the bridge does not forward on the port";
        case EBUSY:
            return "the switch sends too many probes already";
        default:
            return "the kernel did not take the frame";
    }
}

}  // namespace

Control::Control(EventLoop& loop, std::string path, StatusBoard& board, Sources sources)
    : loop_(loop),
      path_(std::move(path)),
      board_(board),
      sources_(std::move(sources)),
      listener_(listen_at(path_)) {
    board_.observe([this](const BoardEvent& event) { on_event(event); });
    listen_again();
    check_file();
}

Control::~Control() {
    unlink(path_.c_str());
}

void Control::listen_again() {
    accept_watch_ =
        loop_.watch(listener_.get(), true, false, [this](EventLoop::Ready) { accept_some(); });
    if (!accept_watch_) {
        accept_timer_ = loop_.after(kAcceptPause, [this] { listen_again(); });
    }
}

// Somebody may have removed the file: no client would find the service any more.
void Control::check_file() {
    check_timer_ = loop_.after(kFileCheck, [this] { check_file(); });
    if (!is_socket(path_)) {
        put_back();
    }
}

void Control::put_back() {
    Descriptor fresh;
    try {
        fresh = listen_at(path_);
    } catch (const std::runtime_error& error) {
        if (refusal_ != error.what()) {
            refusal_ = error.what();
            log_message(kLogError, "TARN", "CONTROL",
                        "The control socket was removed and cannot be put back: %s.",
                        refusal_.c_str());
        }
        return;
    }
    refusal_.clear();
    accept_watch_.reset();
    accept_timer_.reset();
    listener_ = std::move(fresh);
    listen_again();
    log_message(kLogWarning, "TARN", "CONTROL", "The control socket was removed; it is back at %s.",
                path_.c_str());
}

void Control::accept_some() {
    Descriptor fd(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (fd.get() < 0) {
        // Without descriptors the listener stays readable: looking again at once would spin.
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            accept_watch_.reset();
            accept_timer_ = loop_.after(kAcceptPause, [this] { listen_again(); });
        }
        return;
    }
    const char* const refusal = !may_connect(fd.get())           ? "not this user"
                                : clients_.size() >= kMaxClients ? "too many clients"
                                                                 : nullptr;
    if (refusal != nullptr) {
        const std::string text = line_of({{"error", refusal}});
        // A fresh connection has room for one line.
        static_cast<void>(send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL));
        return;
    }
    const uint64_t id = next_id_++;
    Client& client = clients_[id];
    client.fd = std::move(fd);
    restart_idle_timer(id, client);
    wait_for(id, client);
}

bool Control::is_busy(const Client& client) {
    return client.showing || client.asked != 0 || !client.output.empty();
}

void Control::on_ready(uint64_t id, EventLoop::Ready ready) {
    const auto found = clients_.find(id);
    if (found == clients_.end()) {
        return;
    }
    Client& client = found->second;
    restart_idle_timer(id, client);
    if (ready.read && !read_some(client)) {
        clients_.erase(found);
        return;
    }
    serve(id);
}

// False when the client has gone.
bool Control::read_some(Client& client) {
    std::array<char, kReadBytes> bytes;
    const ssize_t size = recv(client.fd.get(), bytes.data(), bytes.size(), 0);
    if (size < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    if (size == 0) {
        client.leaving = true;
        return is_busy(client);  // one that has sent all it wants still gets its answers
    }
    if (!client.watching) {
        client.input.append(bytes.data(), static_cast<size_t>(size));
    }
    return true;
}

// Works through what the client has sent, as far as it takes the answers, then waits.
void Control::serve(uint64_t id) {
    const auto found = clients_.find(id);
    if (found == clients_.end()) {
        return;
    }
    Client& client = found->second;
    bool open = flush(client);
    while (open && !is_busy(client) && !client.watching) {
        const size_t end = client.input.find('\n');
        if (std::min(end, client.input.size()) > kMaxLine) {
            refuse(client, "the request is too long");
            client.leaving = true;
            client.input.clear();
        } else if (end != std::string::npos) {
            const std::string line = client.input.substr(0, end);
            client.input.erase(0, end + 1);
            answer(id, client, line);
        } else {
            break;
        }
        open = flush(client);
    }
    if (!open ||
        (client.leaving && !is_busy(client) && client.input.find('\n') == std::string::npos)) {
        clients_.erase(found);
        return;
    }
    wait_for(id, client);
}

void Control::answer(uint64_t id, Client& client, std::string_view line) {
    const Json request = Json::parse(line, nullptr, false);
    const std::string wanted = request.is_object() ? text_of(request, "do") : "";
    if (wanted == "show") {
        begin_show(client, request);
    } else if (wanted == "counters") {
        say(client, {{"counters", counters_json(sources_.counters())}});
        say(client, {{"done", true}});
    } else if (wanted == "watch") {
        client.watching = true;
        say(client, {{"watching", true}});
    } else if (wanted == "probe") {
        begin_probe(id, client, request);
    } else {
        refuse(client, R"(the request has no "do" of "show", "counters", "watch" or "probe")");
    }
}

void Control::begin_show(Client& client, const Json& request) {
    if (!request.contains("port")) {
        client.showing = true;
        client.shown = 0;
        show_more(client);
        return;
    }
    const std::string name = text_of(request, "port");
    const uint32_t ifx = if_nametoindex(name.c_str());
    const auto status = board_.status(ifx);
    if (!status) {
        refuse(client, name + ": " + reason_of(ENODEV));
        return;
    }
    say(client, port_json(ifx, *status));
    say(client, {{"done", true}});
}

void Control::show_more(Client& client) const {
    while (client.showing && client.output.size() < kShowBytes) {
        client.shown = board_.next_port(client.shown);
        client.showing = client.shown != 0;
        say(client, client.showing ? port_json(client.shown, *board_.status(client.shown))
                                   : Json{{"done", true}});
    }
}

void Control::begin_probe(uint64_t id, Client& client, const Json& request) {
    const std::string name = text_of(request, "port");
    const uint32_t ifx = if_nametoindex(name.c_str());
    if (!board_.status(ifx)) {
        refuse(client, name + ": " + reason_of(ENODEV));
    } else if (asked_.contains(ifx)) {
        refuse(client, name + ": another client's probe is under way");
    } else if (!sources_.ask(ifx)) {
        refuse(client, name + ": the probing thread is too busy");
    } else {
        client.asked = ifx;
        asked_[ifx] = {.client = id, .sent = false, .timer = loop_.after(kProbeTime, [this, ifx] {
                           end_probe(ifx);
                       })};
    }
}

void Control::on_event(const BoardEvent& event) {
    if (event.kind == BoardEvent::Kind::kAsked) {
        return on_asked(event);
    }
    if (event.kind == BoardEvent::Kind::kReturned) {
        return on_returned(event);
    }
    const Json json = event_json(event);
    if (json.is_null()) {
        return;
    }
    const std::string line = line_of(json);
    for (auto next = clients_.begin(); next != clients_.end();) {
        const uint64_t id = next->first;
        Client& client = next->second;
        ++next;
        if (!client.watching) {
            continue;
        }
        if (client.output.empty()) {
            restart_idle_timer(id, client);
        }
        client.output += line;
        if (client.output.size() > kMaxQueue) {
            clients_.erase(id);  // it does not read
        } else {
            serve(id);
        }
    }
}

void Control::on_asked(const BoardEvent& event) {
    const auto asked = asked_.find(event.ifx);
    if (asked == asked_.end() || asked->second.sent) {
        return;
    }
    asked->second.sent = true;
    const auto client = clients_.find(asked->second.client);
    if (event.error == 0 || client == clients_.end()) {
        return;
    }
    const uint64_t id = client->first;
    client->second.asked = 0;
    refuse(client->second, port_name(event.ifx) + ": " + reason_of(event.error));
    asked_.erase(asked);
    serve(id);
}

void Control::on_returned(const BoardEvent& event) {
    const auto asked = asked_.find(event.loop.src_ifx);
    const auto client =
        asked != asked_.end() ? clients_.find(asked->second.client) : clients_.end();
    if (client == clients_.end()) {
        return;
    }
    say(client->second, {{"returned", port_name(event.ifx)},
                         {"path_us", event.loop.path / std::chrono::microseconds(1)}});
    serve(client->first);
}

void Control::end_probe(uint32_t ifx) {
    const auto asked = asked_.extract(ifx);
    const auto client = clients_.find(asked.mapped().client);
    if (client == clients_.end()) {
        return;
    }
    client->second.asked = 0;
    if (asked.mapped().sent) {
        say(client->second, {{"done", true}});
    } else {
        refuse(client->second, port_name(ifx) + ": the probing thread does not answer");
    }
    serve(client->first);
}

// False when the client has gone.
bool Control::flush(Client& client) {
    while (!client.output.empty()) {
        const ssize_t size =
            send(client.fd.get(), client.output.data(), client.output.size(), MSG_NOSIGNAL);
        if (size < 0 && errno != EINTR) {
            return errno == EAGAIN;
        }
        client.output.erase(0, size < 0 ? 0 : static_cast<size_t>(size));
        show_more(client);
    }
    return true;
}

void Control::wait_for(uint64_t id, Client& client) {
    const bool read = client.watching || !is_busy(client);
    const bool write = !client.output.empty();
    const int wanted = (read && !client.leaving ? kRead : 0) | (write ? kWrite : 0);
    if (wanted == client.watched) {
        return;
    }
    client.watched = wanted;
    client.watch.reset();
    if (wanted != 0) {
        client.watch = loop_.watch(client.fd.get(), (wanted & kRead) != 0, (wanted & kWrite) != 0,
                                   [this, id](EventLoop::Ready ready) { on_ready(id, ready); });
    }
}

// A client that has neither sent nor taken anything for this time is dropped, unless it waits for
// events and has read all of them.
void Control::restart_idle_timer(uint64_t id, Client& client) {
    client.idle_timer = loop_.after(kIdleTimeout, [this, id] {
        const auto found = clients_.find(id);
        if (found->second.watching && found->second.output.empty()) {
            restart_idle_timer(id, found->second);
        } else {
            clients_.erase(found);
        }
    });
}

void Control::say(Client& client, const Json& line) {
    client.output += line_of(line);
}

void Control::refuse(Client& client, const std::string& reason) {
    say(client, {{"error", reason}});
}

}  // namespace qv::tarnd
