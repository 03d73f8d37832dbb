#include "tests/support/redis_server.h"

#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace qv::test {
namespace {

using Connection = std::unique_ptr<redisContext, decltype(&redisFree)>;

Connection open_connection(const std::string& socket) {
    return {redisConnectUnix(socket.c_str()), redisFree};
}

bool answers(const std::string& socket) {
    const Connection connection = open_connection(socket);
    if (!connection || connection->err != 0) {
        return false;
    }
    void* const reply = redisCommand(connection.get(), "PING");
    const bool alive =
        reply != nullptr && static_cast<redisReply*>(reply)->type == REDIS_REPLY_STATUS;
    freeReplyObject(reply);
    return alive;
}

std::unique_ptr<redisReply, decltype(&freeReplyObject)> call(
    redisContext* connection, const std::vector<std::string>& words) {
    std::vector<const char*> texts;
    std::vector<size_t> lengths;
    for (const std::string& word : words) {
        texts.push_back(word.data());
        lengths.push_back(word.size());
    }
    void* const reply =
        redisCommandArgv(connection, static_cast<int>(words.size()), texts.data(), lengths.data());
    if (reply == nullptr) {
        throw std::runtime_error(connection->errstr);
    }
    return {static_cast<redisReply*>(reply), freeReplyObject};
}

[[noreturn]] void become_server(const std::string& directory, const std::string& socket,
                                const std::string& databases) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(quiet, STDOUT_FILENO);
    execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", socket.c_str(), "--dir",
           directory.c_str(), "--databases", databases.c_str(), "--save", "", "--appendonly", "yes",
           "--appendfsync", "always", "--daemonize", "no", nullptr);
    _exit(127);
}

}  // namespace

bool RedisServer::installed() {
    const char* const folders = std::getenv("PATH");
    std::istringstream path(folders != nullptr ? folders : "");
    for (std::string folder; std::getline(path, folder, ':');) {
        if (access((folder + "/redis-server").c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

RedisServer::RedisServer() {
    std::string name = std::filesystem::temp_directory_path() / "lda-redis-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("cannot make a temporary directory");
    }
    directory_ = name;
    socket_ = directory_ + "/socket";
}

RedisServer::~RedisServer() {
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void RedisServer::start(unsigned databases) {
    const std::string count = std::to_string(databases);
    pid_ = fork();
    if (pid_ == 0) {
        become_server(directory_, socket_, count);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!answers(socket_)) {
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("redis-server does not answer");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void RedisServer::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void RedisServer::forget() const {
    std::filesystem::remove_all(directory_ + "/appendonlydir");
}

void RedisServer::freeze() {
    ::kill(pid_, SIGSTOP);
}

std::vector<std::string> RedisServer::run(unsigned db,
                                          const std::vector<std::string>& words) const {
    const Connection connection = open_connection(socket_);
    call(connection.get(), {"SELECT", std::to_string(db)});
    const auto reply = call(connection.get(), words);
    const auto text = [](const redisReply& part) {
        return part.type == REDIS_REPLY_INTEGER ? std::to_string(part.integer)
                                                : std::string(part.str, part.len);
    };
    std::vector<std::string> answer;
    switch (reply->type) {
        case REDIS_REPLY_ERROR:
            throw std::runtime_error(reply->str);
        case REDIS_REPLY_NIL:
            break;
        case REDIS_REPLY_ARRAY:
            for (size_t n = 0; n < reply->elements; n++) {
                answer.push_back(text(*reply->element[n]));
            }
            break;
        default:
            answer.push_back(text(*reply));
    }
    return answer;
}

}  // namespace qv::test
