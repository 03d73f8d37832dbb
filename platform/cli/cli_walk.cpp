#include <algorithm>
#include <charconv>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "platform/cli/blanks.h"
#include "platform/cli/walk.h"

using qv::cli::Capture;
using qv::cli::Fault;
using qv::cli::Fit;
using qv::cli::Hint;
using qv::cli::kBlanks;
using qv::cli::Offer;
using qv::cli::Opening;
using qv::cli::Parsed;
using qv::cli::Place;
using qv::cli::trimmed;

namespace {

// Trees are a few dozen nodes deep; a deeper walk means that a tree contains a cycle.
constexpr int kMaxDepth = 500;
constexpr size_t kShownBytes = 40;

std::string quoted(std::string_view word) {
    std::string text = "'" + std::string(word.substr(0, kShownBytes));
    return text + (word.size() > kShownBytes ? "...'" : "'");
}

std::string bounds(const cli_number_arg& number) {
    return std::to_string(number.low) + "-" + std::to_string(number.high);
}

// Reads a decimal number. Returns an empty text when it is within the bounds, else what is wrong.
std::string read_number(std::string_view word, const cli_number_arg& bound, int64_t& value) {
    const char* end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (stop != end || error == std::errc::invalid_argument) {
        return "% Invalid number: " + quoted(word) + " (" + bounds(bound) + ").";
    }
    if (error != std::errc{} || value < bound.low || value > bound.high) {
        return "% Number out of range: " + quoted(word) + " (" + bounds(bound) + ").";
    }
    return {};
}

// Whether `word` is a number between the bounds, or may be the beginning of one.
bool may_become_number(std::string_view word, const cli_number_arg& bound) {
    int64_t value = 0;
    const std::string_view digits = word.starts_with('-') ? word.substr(1) : word;
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    const bool whole = error == std::errc{} && stop == digits.data() + digits.size();
    if (digits.size() != word.size()) {
        return bound.low < 0 && (digits.empty() || (whole && -value >= bound.low));
    }
    return digits.empty() || (whole && value <= bound.high);
}

bool only_takes_words(cli_action action) {
    return action == common_keyword_action || action == common_number_action ||
           action == common_word_action || action == eol_action || action == noprefix_action ||
           action == defaultprefix_action || action == append_point_action;
}

void find_stops(const cli_node* node, std::unordered_set<const cli_node*>& seen,
                std::vector<const cli_node*>& stops) {
    if (!node || !node->action || node == &Tno_alt || !seen.insert(node).second) {
        return;
    }
    const bool prints = node->action == c2p_action;
    if (!only_takes_words(node->action)) {
        stops.push_back(node);
        if (!prints) {
            return;  // its action continues from there
        }
    }
    if (node->action != eol_action) {
        find_stops(node->accept, seen, stops);
    }
    find_stops(node->alternative, seen, stops);
}

// The nodes after `node` that do something while a configuration is generated, in the order of
// the walk. Most nodes only take words. Nodes never change and are never destroyed, so each tree
// is searched once.
const std::vector<const cli_node*>& stops_from(const cli_node* node) {
    static auto& known = *new std::unordered_map<const cli_node*, std::vector<const cli_node*>>;
    const auto [entry, unknown] = known.try_emplace(node);
    if (unknown) {
        std::unordered_set<const cli_node*> seen;
        find_stops(node, seen, entry->second);
    }
    return entry->second;
}

}  // namespace

bool cli_walk::may_begin(const Opening& opening) const {
    const bool any = !word_ || hinting_ || generating() || opening.any_word;
    return any || std::any_of(opening.keywords.begin(), opening.keywords.end(),
                              [this](auto keyword) { return keyword.starts_with(word_->text); });
}

void cli_walk::visit(const cli_node* node) {
    if (!node || !node->action || depth_ >= kMaxDepth) {
        return;
    }
    ++depth_;
    if (generating()) {
        for (const cli_node* stop : stops_from(node)) {
            stop->action(this, stop);
        }
    } else {
        node->action(this, node);
    }
    --depth_;
}

Place cli_walk::after(const cli_node* node, std::string_view word) const {
    Place next = place;
    next.node = node->accept;
    next.text.append(next.text.empty() ? "" : " ").append(word);
    return next;
}

bool cli_walk::prefix_fits() const {
    if (pcdb->prefix & CLI_PREFIX_NO) {
        return place.no_allowed;
    }
    return !(pcdb->prefix & CLI_PREFIX_DEFAULT) || place.default_allowed;
}

void cli_walk::hint(std::string_view word, std::string_view help) {
    const bool no_refused =
        (pcdb->prefix & CLI_PREFIX_NO) && !place.no_allowed && !place.no_in_tree;
    const bool default_refused = (pcdb->prefix & CLI_PREFIX_DEFAULT) && !place.default_in_tree;
    const bool known = std::any_of(hints_.begin(), hints_.end(),
                                   [&](const Hint& other) { return other.word == word; });
    if (!no_refused && !default_refused && !known && word.starts_with(word_->text)) {
        hints_.push_back({std::string(word), std::string(help), true});
    }
}

void cli_walk::offer_keyword(std::string_view keyword, std::string_view help, const cli_node* node,
                             Capture capture) {
    if (!word_) {
        return;
    }
    if (hinting_) {
        hint(keyword, help);
        return;
    }
    if (!keyword.starts_with(word_->text)) {
        return;
    }
    Offer offer{.fit = keyword == word_->text ? Fit::kKeyword : Fit::kKeywordPrefix,
                .name = std::string(keyword),
                .takes_rest = false,
                .next = after(node, keyword)};
    if (capture.slot != Capture::Slot::kNone) {
        offer.next.captures.push_back(std::move(capture));
    }
    offers_.push_back(std::move(offer));
}

void cli_walk::offer_number(const cli_number_arg& number, const cli_node* node) {
    if (!word_) {
        return;
    }
    if (hinting_) {
        if (may_become_number(word_->text, number)) {
            hints_.push_back({"<" + bounds(number) + ">", number.help, false});
        }
        return;
    }
    int64_t value = 0;
    std::string wrong = read_number(word_->text, number, value);
    if (!wrong.empty()) {
        slot_error_ = std::move(wrong);
        return;
    }
    Offer offer{.fit = Fit::kNumber,
                .name = number.help,
                .takes_rest = false,
                .next = after(node, std::to_string(value))};
    offer.next.captures.push_back(
        {.slot = Capture::Slot::kNumber, .index = number.slot, .number = value, .word = {}});
    offers_.push_back(std::move(offer));
}

void cli_walk::offer_word(const cli_word_arg& word, const cli_node* node) {
    if (!word_) {
        return;
    }
    if (hinting_) {
        hints_.push_back({word.name, word.help, false});
        return;
    }
    const std::string_view text = word.rest ? word_->rest : word_->text;
    if (text.size() >= CLI_WORD_BYTES) {
        slot_error_ = "% Word too long: " + quoted(text) + ".";
        return;
    }
    Offer offer{
        .fit = Fit::kWord, .name = word.name, .takes_rest = word.rest, .next = after(node, text)};
    offer.next.captures.push_back(
        {.slot = Capture::Slot::kWord, .index = word.slot, .number = 0, .word = std::string(text)});
    offers_.push_back(std::move(offer));
}

void cli_walk::offer_end(cli_handler handler) {
    if (word_) {
        if (hinting_ && word_->text.empty() && prefix_fits()) {
            hints_.push_back({"<cr>", "", false});
        }
        return;
    }
    if (!prefix_fits()) {
        prefix_refused_ = true;
        return;
    }
    // Two trees have the same command: the one added first wins.
    if (!handler_) {
        handler_ = handler;
        end_ = place;
    }
}

bool cli_walk::first_time(const cli_node* node) {
    if (std::find(printed_.begin(), printed_.end(), node) != printed_.end()) {
        return false;
    }
    printed_.push_back(node);
    return true;
}

std::vector<cli_walk::Word> cli_walk::split(std::string_view line) {
    line = trimmed(line);
    std::vector<Word> words;
    size_t start = line.find_first_not_of(kBlanks);
    while (start != std::string_view::npos) {
        const size_t end = std::min(line.find_first_of(kBlanks, start), line.size());
        words.push_back({line.substr(start, end - start), line.substr(start)});
        start = line.find_first_not_of(kBlanks, end);
    }
    return words;
}

void cli_walk::look(const std::vector<Place>& places, const Word* word) {
    word_ = word;
    offers_.clear();
    slot_error_.clear();
    for (const Place& from : places) {
        place = from;
        visit(from.node);
    }
}

bool cli_walk::fail(Fault fault, std::string_view wrong, std::string error) {
    failure_ = {.fault = fault, .error = std::move(error), .wrong = wrong, .text = {}};
    return false;
}

bool cli_walk::choose(const Word& word, std::vector<Place>& places, bool& rest) {
    if (offers_.empty() && !slot_error_.empty()) {
        return fail(Fault::kBadValue, word.text, std::move(slot_error_));
    }
    if (offers_.empty()) {
        return fail(Fault::kUnknownWord, word.text,
                    "% Unknown command: " + quoted(word.text) + ".");
    }
    const Fit best = std::min_element(offers_.begin(), offers_.end(), [](auto& a, auto& b) {
                         return a.fit < b.fit;
                     })->fit;
    rest = std::any_of(offers_.begin(), offers_.end(),
                       [&](auto& offer) { return offer.fit == best && offer.takes_rest; });
    std::vector<std::string> names;
    places.clear();
    for (Offer& offer : offers_) {
        if (offer.fit != best || offer.takes_rest != rest) {
            continue;
        }
        if (std::find(names.begin(), names.end(), offer.name) == names.end()) {
            names.push_back(offer.name);
        }
        places.push_back(std::move(offer.next));
    }
    if (best == Fit::kKeywordPrefix && names.size() > 1) {
        std::string error = "% Ambiguous command: " + quoted(word.text) + " (";
        for (size_t i = 0; i < names.size(); ++i) {
            error += (i ? ", " : "") + names[i];
        }
        return fail(Fault::kAmbiguousWord, word.text, error + ").");
    }
    return true;
}

void cli_walk::store(const Place& from) {
    for (const Capture& capture : from.captures) {
        if (capture.slot == Capture::Slot::kNumber && capture.index < CLI_NUMBER_SLOTS) {
            pcdb->number[capture.index] = capture.number;
        } else if (capture.slot == Capture::Slot::kWord && capture.index < CLI_WORD_SLOTS) {
            char* slot = pcdb->word[capture.index];
            std::memcpy(slot, capture.word.c_str(), capture.word.size() + 1);
        }
    }
}

Parsed cli_walk::parse(const cli_node* root, std::string_view line) {
    std::memset(pcdb->number, 0, sizeof pcdb->number);
    std::memset(pcdb->word, 0, sizeof pcdb->word);
    std::vector<Place> places(1);
    places[0].node = root;
    bool rest = false;
    for (const Word& word : split(line)) {
        if (rest) {
            break;
        }
        look(places, &word);
        if (!choose(word, places, rest)) {
            return std::move(failure_);
        }
    }
    look(places, nullptr);
    if (handler_) {
        store(end_);
        return {.handler = handler_, .error = {}, .wrong = {}, .text = end_.text};
    }
    if (prefix_refused_) {
        const char* prefix = (pcdb->prefix & CLI_PREFIX_NO) ? "no" : "default";
        fail(Fault::kPrefix, line.substr(0, 0),
             "% Invalid prefix: '" + std::string(prefix) + "' does not apply here.");
    } else {
        fail(Fault::kIncomplete, line.substr(line.size()), "% Incomplete command.");
    }
    return std::move(failure_);
}

std::vector<Hint> cli_walk::rest_hints(const std::vector<Place>& places, const Word& word) {
    hinting_ = true;
    look(places, &word);
    std::erase_if(hints_, [](const Hint& hint) { return hint.literal; });
    return std::move(hints_);
}

std::vector<Hint> cli_walk::hints(const cli_node* root, std::string_view line) {
    std::vector<Word> words = split(line);
    const bool fresh = line.empty() || kBlanks.find(line.back()) != std::string_view::npos;
    const Word last = fresh || words.empty() ? Word{} : words.back();
    if (!fresh && !words.empty()) {
        words.pop_back();
    }
    std::vector<Place> places(1);
    places[0].node = root;
    bool rest = false;
    for (const Word& word : words) {
        look(places, &word);
        const std::vector<Place> before = places;
        if (!choose(word, places, rest)) {
            return {};
        }
        if (rest) {
            return rest_hints(before, word);
        }
    }
    hinting_ = true;
    look(places, &last);
    return std::move(hints_);
}
