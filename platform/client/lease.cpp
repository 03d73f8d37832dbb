#include "platform/client/lease.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>
#include <vector>

namespace qv {
namespace {

using namespace std::chrono_literals;

constexpr size_t kMaxText_bytes = 256;
constexpr uint64_t kMaxNumber = 1'000'000'000'000'000;  // one more never overflows

constexpr Duration kLongestPoll = 250ms;

std::vector<std::string_view> words_of(std::string_view text) {
    std::vector<std::string_view> words;
    for (;;) {
        const size_t end = text.find(' ');
        words.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return words;
        }
        text.remove_prefix(end + 1);
    }
}

bool read_number(std::string_view word, uint64_t& into) {
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), into);
    return error == std::errc() && end == word.data() + word.size() && into <= kMaxNumber;
}

bool is_name(std::string_view word) {
    return !word.empty() &&
           std::all_of(word.begin(), word.end(), [](char c) { return c > 0x20 && c < 0x7f; });
}

}  // namespace

std::string lease_text(const LeaseText& lease) {
    return std::to_string(lease.fence) + " " + std::to_string(lease.count) + " " +
           std::to_string(lease.time_ms) + " " + lease.token + " " + lease.host + " " +
           std::to_string(lease.pid);
}

std::optional<LeaseText> parse_lease(const std::string& text) {
    if (text.size() > kMaxText_bytes) {
        return std::nullopt;
    }
    const std::vector<std::string_view> words = words_of(text);
    LeaseText lease;
    if (words.size() != 6 || !read_number(words[0], lease.fence) ||
        !read_number(words[1], lease.count) || !read_number(words[2], lease.time_ms) ||
        !is_name(words[3]) || !is_name(words[4]) || !read_number(words[5], lease.pid)) {
        return std::nullopt;
    }
    lease.token = words[3];
    lease.host = words[4];
    return lease;
}

Lease::Lease(EventLoop& loop, LeaseDriver& driver, Settings settings, Events events)
    : loop_(loop), driver_(driver), settings_(std::move(settings)), events_(std::move(events)) {}

void Lease::start() {
    driver_.connect(*this);
}

void Lease::check() {
    if (role_ == Role::kMaster && loop_.clock().now() >= valid_until_) {
        end("the lease was not renewed in time (" +
            (trouble_.empty() ? "the server did not answer, or this process was stopped"
                              : trouble_) +
            ")");
    }
}

Lease::State Lease::state() const {
    const bool master = role_ == Role::kMaster;
    return {.master = master,
            .fence = master ? mine_.fence : 0,
            .left = master ? valid_until_ - loop_.clock().now() : Duration::zero()};
}

void Lease::lease_reached() {
    switch (role_) {
        case Role::kStandby:
            poll();
            break;
        case Role::kMaster:
            renew();
            break;
        case Role::kEnded:
            break;
    }
}

void Lease::lease_unreachable(const std::string& reason) {
    seen_.reset();
    next_.reset();
    if (role_ != Role::kEnded && std::exchange(trouble_, reason) != reason) {
        events_.trouble(reason);
    }
}

// ---- Standing by ----

void Lease::poll() {
    driver_.read([this](const std::string& text) { observed(text); });
}

void Lease::observed(const std::string& text) {
    if (role_ != Role::kStandby) {
        return;
    }
    trouble_.clear();
    const Time now = loop_.clock().now();
    if (!seen_ || seen_->text != text) {
        seen_ = {text, now};
        if (const std::optional<LeaseText> lease = parse_lease(text)) {
            highest_fence_ = std::max(highest_fence_, lease->fence);
        }
    }
    const Duration left = seen_->since + patience(text) - now;
    if (left <= Duration::zero()) {
        take();
    } else {
        next_ =
            loop_.after(std::min({left, settings_.time / 10, kLongestPoll}), [this] { poll(); });
    }
}

// How long a text must stay unchanged. Its writer may hold it for longer than this process would.
Duration Lease::patience(const std::string& text) const {
    const std::optional<LeaseText> lease = parse_lease(text);
    const uint64_t limit_ms = static_cast<uint64_t>(kLongest.count());
    if (!lease || lease->time_ms <= settings_.mine.time_ms) {
        return settings_.time;
    }
    // In proportion, because the loop's clock may be faster than real time.
    const auto own = static_cast<int64_t>(settings_.mine.time_ms);
    return settings_.time / own * static_cast<int64_t>(std::min(lease->time_ms, limit_ms));
}

void Lease::take() {
    LeaseText wanted = settings_.mine;
    wanted.fence = highest_fence_ + 1;
    const Time asked = loop_.clock().now();
    const std::string replaced = seen_->text;
    driver_.replace(replaced, lease_text(wanted),
                    [this, wanted, asked, replaced](const std::string& text) {
                        taken(wanted, asked, replaced, text);
                    });
}

void Lease::taken(const LeaseText& wanted, Time asked, const std::string& replaced,
                  const std::string& text) {
    // After a pause the lease may have ended before this process knew of it. Then its own text is
    // watched like any other.
    if (role_ != Role::kStandby || text != lease_text(wanted) ||
        loop_.clock().now() >= end_of(asked)) {
        observed(text);
        return;
    }
    role_ = Role::kMaster;
    trouble_.clear();
    prove(wanted, asked);
    events_.granted(parse_lease(replaced));
}

// ---- Being the master ----

// When the master must end after a request that was sent at `asked`: a tenth before others may
// begin.
Time Lease::end_of(Time asked) const {
    return asked + settings_.time - settings_.time / 10;
}

// The store has accepted `lease`, with a request that was sent at `asked`.
void Lease::prove(const LeaseText& lease, Time asked) {
    mine_ = lease;
    stored_ = lease_text(lease);
    valid_until_ = end_of(asked);
    const Time now = loop_.clock().now();
    expiry_ = loop_.after(valid_until_ - now, [this] { check(); });
    next_ = loop_.after(asked + settings_.time / 3 - now, [this] { renew(); });
}

void Lease::renew() {
    LeaseText wanted = mine_;
    ++wanted.count;
    const Time asked = loop_.clock().now();
    driver_.replace(stored_, lease_text(wanted), [this, wanted, asked](const std::string& text) {
        renewed(wanted, asked, text);
    });
}

void Lease::renewed(const LeaseText& wanted, Time asked, const std::string& text) {
    if (role_ != Role::kMaster) {
        return;
    }
    trouble_.clear();
    if (text == lease_text(wanted)) {
        prove(wanted, asked);
        return;
    }
    const std::optional<LeaseText> held = parse_lease(text);
    // A server that has lost the text, or shows another one of ours: that of a renewal whose answer
    // was lost, or an older one from its disk.
    if (text.empty() || (held && held->token == mine_.token)) {
        stored_ = text;
        mine_.count = std::max(mine_.count, held ? held->count : 0);
        renew();
        return;
    }
    end(held ? "process " + std::to_string(held->pid) + " on " + held->host +
                   " holds the lease, with fencing number " + std::to_string(held->fence)
             : "another program has written the lease");
}

void Lease::end(const std::string& reason) {
    role_ = Role::kEnded;
    next_.reset();
    expiry_.reset();
    events_.lost(reason);
}

}  // namespace qv
