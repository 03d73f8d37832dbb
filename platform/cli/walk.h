// One walk through command trees, as the actions of parse nodes see it. Loop thread only.
//
// A line is parsed word by word. At each word all nodes that can be reached are visited, and every
// node that takes the word makes an offer; the best kind of offer wins (an exact keyword, then a
// keyword's prefix, then a number, then any word), and its nodes are where the next word starts.
// Two different keywords with the same prefix are an ambiguity. Generation visits only the nodes
// that print something or decide which nodes follow.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qv/cli.h"

namespace qv::cli {

// How well a node fits the word; a smaller value beats a larger one.
enum class Fit { kKeyword, kKeywordPrefix, kNumber, kWord };

// The values that a word leaves in the parse context.
struct Capture {
    enum class Slot { kNone, kNumber, kWord };
    Slot slot = Slot::kNone;
    uint32_t index = 0;
    int64_t number = 0;
    std::string word;
};

// A place between two words: the nodes before it are decided, `node` comes next.
struct Place {
    const cli_node* node = nullptr;
    bool no_allowed = false;       // the tree has a node for the "no" prefix
    bool default_allowed = false;  // a node for the "default" prefix was passed
    bool no_in_tree = false;       // for help: a node for the "no" prefix may follow
    bool default_in_tree = false;  // the same for "default"
    std::vector<Capture> captures;
    std::string text;  // the words so far, keywords in full
};

struct Offer {
    Fit fit;
    std::string name;  // the keyword, or the name of a slot
    bool takes_rest;   // the offer takes all words to the end of the line
    Place next;
};

// The words that begin the lines of a tree, whatever its test nodes decide.
struct Opening {
    bool any_word = false;  // a slot, or a node whose action alone knows its words
    std::vector<std::string_view> keywords;
};

// One possibility for help and completion.
struct Hint {
    std::string word;  // keyword, or how a slot is shown
    std::string help;
    bool literal;  // can be completed
};

// Why a line is not a command.
enum class Fault { kNone, kUnknownWord, kAmbiguousWord, kBadValue, kPrefix, kIncomplete };

// A parsed line: the handler to call, null with the reason when the line is not a command.
struct Parsed {
    cli_handler handler = nullptr;
    Fault fault = Fault::kNone;
    std::string error;
    std::string_view wrong;  // the word at fault; the end of the line when more is missing
    std::string text;        // the line with its keywords in full
};

}  // namespace qv::cli

struct cli_walk {
    enum class Purpose { kExecute, kHelp, kGenerate };

    cli_walk(Purpose why, cli_pcdb* context) : purpose(why), pcdb(context) {}

    const Purpose purpose;
    cli_pcdb* const pcdb;

    // Runs the action of `node`; null and the end of a list do nothing.
    void visit(const cli_node* node);
    // False when no line of a tree begins with the current word: then it need not be visited.
    bool may_begin(const qv::cli::Opening& opening) const;
    bool generating() const { return purpose == Purpose::kGenerate; }
    bool hinting() const { return hinting_; }

    // Offers of the actions, for the current word. `node` is the one that makes the offer.
    void offer_keyword(std::string_view keyword, std::string_view help, const cli_node* node,
                       qv::cli::Capture capture = {});
    void offer_number(const cli_number_arg& number, const cli_node* node);
    void offer_word(const cli_word_arg& word, const cli_node* node);
    void offer_end(cli_handler handler);
    // For help: adds a possibility that starts with the current word and can be completed.
    void hint(std::string_view word, std::string_view help);
    // For generation: false when `node` has already printed its part of this section.
    bool first_time(const cli_node* node);

    // Parses `line`, without its prefix, from `root` and fills the slots of the context.
    qv::cli::Parsed parse(const cli_node* root, std::string_view line);
    // The words that can stand in place of the last one of `line` (empty after a blank).
    std::vector<qv::cli::Hint> hints(const cli_node* root, std::string_view line);

    qv::cli::Place place;  // where the walk is

 private:
    struct Word {
        std::string_view text;
        std::string_view rest;  // from the word to the end of the line
    };

    static std::vector<Word> split(std::string_view line);
    // Visits all places with `word`; offers are collected.
    void look(const std::vector<qv::cli::Place>& places, const Word* word);
    // Keeps the best offers as the next places; false with failure_ set when there is none.
    bool choose(const Word& word, std::vector<qv::cli::Place>& places, bool& rest);
    bool fail(qv::cli::Fault fault, std::string_view wrong, std::string error);
    // The slot that takes the rest of the line from `word` on.
    std::vector<qv::cli::Hint> rest_hints(const std::vector<qv::cli::Place>& places,
                                          const Word& word);
    void store(const qv::cli::Place& from);
    // The place after `node`, which takes `word`.
    qv::cli::Place after(const cli_node* node, std::string_view word) const;
    bool prefix_fits() const;

    const Word* word_ = nullptr;  // null at the end of the line
    std::vector<qv::cli::Offer> offers_;
    std::vector<qv::cli::Hint> hints_;
    std::string slot_error_;       // why a number or word slot refused the word
    qv::cli::Parsed failure_;      // why choose() failed
    bool hinting_ = false;         // the word is to complete
    bool prefix_refused_ = false;  // a line end did not take the prefix
    cli_handler handler_ = nullptr;
    qv::cli::Place end_;  // place of the handler
    std::vector<const cli_node*> printed_;
    int depth_ = 0;
};
