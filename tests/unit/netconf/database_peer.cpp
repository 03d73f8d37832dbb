#include "tests/unit/netconf/database_peer.h"

#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

namespace netconf::test {
namespace {

using Words = std::vector<std::string>;

const std::string kOk = "+OK\r\n";
const std::string kQueued = "+QUEUED\r\n";

struct Client {
    int fd = -1;
    std::unique_ptr<redisReader, decltype(&redisReaderFree)> reader{redisReaderCreate(),
                                                                    redisReaderFree};
    unsigned database = 0;
    std::string channel;  // that it listens on
    bool queueing = false;
    std::vector<Words> queue;
};

Words words_of(const redisReply& reply) {
    Words words;
    for (size_t n = 0; n < reply.elements; n++) {
        words.emplace_back(reply.element[n]->str, reply.element[n]->len);
    }
    return words;
}

void send_all(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) {
            return;  // the client is gone
        }
        done += static_cast<size_t>(sent);
    }
}

std::string joined(const Client& client, const Words& words) {
    std::string text = std::to_string(client.database);
    for (const std::string& word : words) {
        text += " " + word;
    }
    return text;
}

}  // namespace

std::string bulk(const std::string& text) {
    return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

std::string integer(long long value) {
    return ":" + std::to_string(value) + "\r\n";
}

std::string array(const std::vector<std::string>& parts) {
    std::string text = "*" + std::to_string(parts.size()) + "\r\n";
    for (const std::string& part : parts) {
        text += part;
    }
    return text;
}

Folder::Folder() {
    std::string name = std::filesystem::temp_directory_path() / "lda-netconf-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("cannot make a temporary folder");
    }
    path_ = name;
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

struct DatabasePeer::Server {
    explicit Server(const std::string& socket);
    ~Server();

    void serve();
    void receive(Client& client);
    std::string reply_to(Client& client, const Words& words);
    std::string perform(Client& client, const Words& words);
    std::string scan(const Client& client, const Words& words);
    std::string execute(Client& client);
    long long publish(const std::string& channel, const std::string& payload);

    int listener;
    int stop;
    mutable std::recursive_mutex mutex;  // guards everything below
    std::map<int, Client> clients;
    std::map<unsigned, std::map<std::string, std::string>> records;
    std::map<std::string, std::string> answers;
    int other_listeners = 0;
    std::function<void(const std::string&, const std::string&)> publish_hook;
    std::vector<std::string> commands;
    int accepted = 0;
    std::thread thread;
};

DatabasePeer::Server::Server(const std::string& socket)
    : listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), stop(eventfd(0, EFD_CLOEXEC)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    snprintf(address.sun_path, sizeof address.sun_path, "%s", socket.c_str());
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 16) != 0) {
        throw std::runtime_error("cannot listen on " + socket);
    }
    thread = std::thread([this] { serve(); });
}

DatabasePeer::Server::~Server() {
    eventfd_write(stop, 1);
    thread.join();
    for (const auto& [fd, client] : clients) {
        close(fd);
    }
    close(listener);
    close(stop);
}

void DatabasePeer::Server::serve() {
    for (;;) {
        std::vector<pollfd> watched{{.fd = stop, .events = POLLIN, .revents = 0},
                                    {.fd = listener, .events = POLLIN, .revents = 0}};
        {
            const std::lock_guard lock(mutex);
            for (const auto& [fd, client] : clients) {
                watched.push_back({.fd = fd, .events = POLLIN, .revents = 0});
            }
        }
        ppoll(watched.data(), watched.size(), nullptr, nullptr);
        if (watched[0].revents != 0) {
            return;
        }
        const std::lock_guard lock(mutex);
        if (watched[1].revents != 0) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            clients.try_emplace(fd).first->second.fd = fd;
            accepted++;
        }
        for (size_t n = 2; n < watched.size(); n++) {
            if (watched[n].revents != 0) {
                receive(clients.at(watched[n].fd));
            }
        }
    }
}

void DatabasePeer::Server::receive(Client& client) {
    std::array<char, 16384> bytes;
    const ssize_t length = ::read(client.fd, bytes.data(), bytes.size());
    if (length <= 0) {
        close(client.fd);
        clients.erase(client.fd);
        return;
    }
    redisReaderFeed(client.reader.get(), bytes.data(), static_cast<size_t>(length));
    void* raw = nullptr;
    while (redisReaderGetReply(client.reader.get(), &raw) == REDIS_OK && raw != nullptr) {
        const std::unique_ptr<redisReply, decltype(&freeReplyObject)> command(
            static_cast<redisReply*>(raw), freeReplyObject);
        send_all(client.fd, reply_to(client, words_of(*command)));
    }
}

std::string DatabasePeer::Server::reply_to(Client& client, const Words& words) {
    if (words[0] != "SELECT") {
        commands.push_back(joined(client, words));
    }
    if (const auto found = answers.find(words[0]); found != answers.end()) {
        return found->second;
    }
    if (client.queueing && words[0] != "EXEC") {
        client.queue.push_back(words);
        return kQueued;
    }
    return perform(client, words);
}

std::string DatabasePeer::Server::perform(Client& client, const Words& words) {
    const std::string& name = words[0];
    if (name == "SELECT") {
        client.database = static_cast<unsigned>(std::stoul(words[1]));
        return kOk;
    }
    if (name == "GET") {
        const auto& table = records[client.database];
        const auto found = table.find(words[1]);
        return found == table.end() ? kNil : bulk(found->second);
    }
    if (name == "SET") {
        records[client.database][words[1]] = words[2];
        return kOk;
    }
    if (name == "MULTI") {
        client.queueing = true;
        return kOk;
    }
    if (name == "SUBSCRIBE") {
        client.channel = words[1];
        return array({bulk("subscribe"), bulk(words[1]), integer(1)});
    }
    if (name == "PUBSUB") {
        return array({bulk(words[2]), integer(other_listeners)});
    }
    if (name == "PUBLISH") {
        return integer(publish(words[1], words[2]));
    }
    return name == "SCAN" ? scan(client, words) : execute(client);
}

// Two pages, and the last key of the first is also in the second.
std::string DatabasePeer::Server::scan(const Client& client, const Words& words) {
    std::string start = words[3];
    start.pop_back();  // the asterisk
    std::vector<std::string> keys;
    for (const auto& [key, value] : records[client.database]) {
        if (key.starts_with(start)) {
            keys.push_back(bulk(key));
        }
    }
    const auto middle = keys.begin() + static_cast<std::ptrdiff_t>((keys.size() + 1) / 2);
    if (words[1] == "0") {
        return array({bulk("17"), array({keys.begin(), middle})});
    }
    return array({bulk("0"), array({keys.empty() ? middle : middle - 1, keys.end()})});
}

std::string DatabasePeer::Server::execute(Client& client) {
    client.queueing = false;
    std::vector<std::string> replies;
    for (const Words& words : std::exchange(client.queue, {})) {
        replies.push_back(perform(client, words));
    }
    return array(replies);
}

long long DatabasePeer::Server::publish(const std::string& channel, const std::string& payload) {
    long long count = other_listeners;
    for (const auto& [fd, client] : clients) {
        if (client.channel == channel) {
            send_all(fd, array({bulk("message"), bulk(channel), bulk(payload)}));
            count++;
        }
    }
    if (publish_hook) {
        publish_hook(channel, payload);
    }
    return count;
}

DatabasePeer::DatabasePeer(const std::string& socket)
    : socket_(socket), server_(std::make_unique<Server>(socket)) {}

// Its thread may still be inside hang_up(): the pointer must stay valid until the thread has ended.
DatabasePeer::~DatabasePeer() {
    unlink(socket_.c_str());
}

void DatabasePeer::store(unsigned database, const std::string& key, const std::string& value) {
    const std::lock_guard lock(server_->mutex);
    server_->records[database][key] = value;
}

void DatabasePeer::answer(const std::string& command, const std::string& raw) {
    const std::lock_guard lock(server_->mutex);
    server_->answers[command] = raw;
}

void DatabasePeer::set_other_listeners(int count) {
    const std::lock_guard lock(server_->mutex);
    server_->other_listeners = count;
}

void DatabasePeer::on_publish(
    std::function<void(const std::string& channel, const std::string& payload)> hook) {
    const std::lock_guard lock(server_->mutex);
    server_->publish_hook = std::move(hook);
}

void DatabasePeer::publish(const std::string& channel, const std::string& payload) {
    const std::lock_guard lock(server_->mutex);
    for (const auto& [fd, client] : server_->clients) {
        if (client.channel == channel) {
            send_all(fd, array({bulk("message"), bulk(channel), bulk(payload)}));
        }
    }
}

void DatabasePeer::send_to_listeners(const std::string& raw) {
    const std::lock_guard lock(server_->mutex);
    for (const auto& [fd, client] : server_->clients) {
        if (!client.channel.empty()) {
            send_all(fd, raw);
        }
    }
}

void DatabasePeer::hang_up() {
    const std::lock_guard lock(server_->mutex);
    for (const auto& [fd, client] : server_->clients) {
        shutdown(fd, SHUT_RDWR);
    }
}

std::vector<std::string> DatabasePeer::commands() const {
    const std::lock_guard lock(server_->mutex);
    return server_->commands;
}

int DatabasePeer::connections() const {
    const std::lock_guard lock(server_->mutex);
    return server_->accepted;
}

}  // namespace netconf::test
