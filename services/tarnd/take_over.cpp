#include "services/tarnd/take_over.h"

namespace qv::tarnd {

void TakeOver::cut(uint32_t ifx) {
    cuts_[ifx] = {.outdated = !database_};
    if (database_) {
        wait(ifx);
    }
}

bool TakeOver::taken(uint32_t ifx) {
    const auto cut = cuts_.find(ifx);
    if (cut == cuts_.end() || (cut->second.outdated && !cut->second.asked)) {
        return false;
    }
    cuts_.erase(cut);
    return true;
}

void TakeOver::not_taken(uint32_t ifx) {
    const auto cut = cuts_.find(ifx);
    if (cut != cuts_.end() && cut->second.asked) {
        give_back(ifx);
    }
}

void TakeOver::set_database(bool up) {
    database_ = up;
    for (auto& [ifx, cut] : cuts_) {
        cut = {.outdated = true};
        if (up) {
            wait(ifx);
        }
    }
}

std::vector<uint32_t> TakeOver::release() {
    std::vector<uint32_t> ports;
    for (const auto& [ifx, cut] : cuts_) {
        ports.push_back(ifx);
    }
    cuts_.clear();
    return ports;
}

void TakeOver::wait(uint32_t ifx) {
    Cut& cut = cuts_.at(ifx);
    cut.asked = false;
    cut.timer = loop_.after(kTakeOverTime, [this, ifx] { ask(ifx); });
}

// A server that does not answer is found out by its connection in the end.
void TakeOver::ask(uint32_t ifx) {
    if (!outputs_.ask()) {
        wait(ifx);
        return;
    }
    Cut& cut = cuts_.at(ifx);
    cut.asked = true;
    cut.timer = loop_.after(kAnswer, [this, ifx] { unanswered(ifx); });
}

// A port without a record is no port of the switch, so nobody has shut it.
void TakeOver::unanswered(uint32_t ifx) {
    if (outputs_.has_record(ifx)) {
        wait(ifx);
    } else {
        give_back(ifx);
    }
}

void TakeOver::give_back(uint32_t ifx) {
    cuts_.erase(ifx);
    outputs_.give_back(ifx);
}

}  // namespace qv::tarnd
