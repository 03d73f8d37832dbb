// Answers programs that ask over the object database which ports loop detection holds shut: NETCONF
// sessions, which may not use the command line. The answer is made at the moment of the question,
// so nothing has to be kept up to date while nobody asks.
#pragma once

#include <memory>
#include <string_view>

#include "platform/driver/store_driver.h"

namespace qv {

// Listens from its creation on. Lives as long as the process. Loop thread only.
class HeldAnswers final : public StoreListener {
 public:
    explicit HeldAnswers(StoreDriver& store);

    void session_up(uint32_t db) override;
    void session_down(uint32_t) override {}
    void subscribed(uint64_t) override {}
    void notice(uint64_t subscription, Bytes notice) override;
    void scanned(uint64_t, std::string_view, Bytes) override {}
    void scan_done(uint64_t) override {}

 private:
    std::unique_ptr<StoreClient> client_;
};

}  // namespace qv
