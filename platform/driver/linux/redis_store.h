// The object store in a Redis server, laid out as docs/object-database.md says. Each client has two
// connections, one for commands and one for subscriptions, and reconnects by itself after a loss:
// after 100 ms at first, then twice as long each time, up to 5 s. Loop thread only. The process
// must ignore SIGPIPE.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/base/redis_server.h"
#include "platform/driver/store_driver.h"

namespace qv {

class RedisStore final : public StoreDriver {
 public:
    // The server need not be there yet.
    RedisStore(EventLoop& loop, RedisServer server);

    // A session is reported when both connections answer and its database is selected. Writes that
    // were accepted but not confirmed when a connection was lost are sent again before that report.
    std::unique_ptr<StoreClient> connect(StoreListener& listener) override;

    // From now on no client connects before release(), which then connects those that have opened a
    // database. Call hold() before the first one does; the clients live at least until release().
    void hold();
    void release();

 private:
    EventLoop& loop_;
    const RedisServer server_;
    std::string login_trouble_;  // of the clients, as logged; empty when they are logged in
    bool held_ = false;
    std::vector<std::function<void()>> waiting_;  // connects of clients, until release()
};

}  // namespace qv
