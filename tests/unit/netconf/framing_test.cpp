// Framing: whole messages from bytes that arrive in pieces, and broken frames.
#include "services/netconf/framing.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using netconf::Framing;
using netconf::Message;

namespace {

const std::string kOldHello = "<hello>urn:ietf:params:netconf:base:1.0</hello>";
const std::string kNewHello = "<hello>urn:ietf:params:netconf:base:1.1</hello>";
const std::string kEnd = "]]>]]>";

std::vector<std::string> texts_of(Framing& framing) {
    std::vector<std::string> texts;
    while (const auto message = framing.next()) {
        texts.push_back(message->text);
    }
    return texts;
}

// The messages in `bytes` after a hello that asks for chunks.
struct Outcome {
    std::vector<std::string> texts;
    std::string fault;
    bool inside;
};

Outcome outcome_of(const std::vector<std::string>& pieces) {
    Framing framing;
    framing.feed(kNewHello + kEnd);
    texts_of(framing);
    Outcome outcome{};
    for (const std::string& piece : pieces) {
        framing.feed(piece);
        for (std::string& text : texts_of(framing)) {
            outcome.texts.push_back(std::move(text));
        }
    }
    outcome.fault = framing.fault() == nullptr ? "" : framing.fault();
    outcome.inside = framing.inside_message();
    return outcome;
}

std::string fault_of(const std::string& bytes) {
    return outcome_of({bytes}).fault;
}

constexpr const char* kNoChunk = "the framing is broken: no chunk begins where one should";
constexpr const char* kNoNumber = "the framing is broken: the size of a chunk is not a number";
constexpr const char* kTooLong = "a message is longer than 64 KiB";

}  // namespace

TEST(Framing, OldClientsMessagesEndWithTheDelimiter) {
    Framing framing;
    framing.feed(kOldHello + kEnd + "<rpc/>" + kEnd + "<rpc2/>" + kEnd + "<re");
    EXPECT_EQ(texts_of(framing), (std::vector<std::string>{kOldHello, "<rpc/>", "<rpc2/>"}));
    EXPECT_TRUE(framing.inside_message());
}

TEST(Framing, NewClientsMessagesAreChunkedAfterTheHello) {
    Framing framing;
    framing.feed(kNewHello + kEnd + "\n#4\n<rpc\n#2\n/>\n##\n");
    EXPECT_EQ(texts_of(framing), (std::vector<std::string>{kNewHello, "<rpc/>"}));
    EXPECT_FALSE(framing.inside_message());
}

TEST(Framing, FrameIsMadeAgainOfOneChunk) {
    EXPECT_EQ((Message{"<rpc/>", true}).framed(), "\n#6\n<rpc/>\n##\n");
    EXPECT_EQ((Message{"<rpc/>", false}).framed(), "<rpc/>]]>]]>");
}

TEST(Framing, HelloKeepsTheDelimiterAlsoWhenItAsksForChunks) {
    Framing framing;
    framing.feed(kNewHello + kEnd);
    const auto hello = framing.next();
    ASSERT_TRUE(hello);
    EXPECT_FALSE(hello->chunked);
    framing.feed("\n#1\nx\n##\n");
    const auto request = framing.next();
    ASSERT_TRUE(request);
    EXPECT_TRUE(request->chunked);
}

TEST(Framing, DelimiterInsideAChunkIsData) {
    EXPECT_EQ(outcome_of({"\n#10\n]]>]]>\n##\n\n##\n"}).texts,
              (std::vector<std::string>{"]]>]]>\n##\n"}));
}

TEST(Framing, EverySplitOfAGoodStreamGivesTheSameMessages) {
    const std::string stream = "\n#3\nabc\n#12\n0123456789ab\n##\n\n#1\nx\n##\n";
    for (size_t first = 0; first <= stream.size(); first++) {
        for (size_t second = first; second <= stream.size(); second++) {
            const Outcome outcome =
                outcome_of({stream.substr(0, first), stream.substr(first, second - first),
                            stream.substr(second)});
            EXPECT_EQ(outcome.texts, (std::vector<std::string>{"abc0123456789ab", "x"}))
                << first << " " << second;
            EXPECT_EQ(outcome.fault, "");
        }
    }
}

TEST(Framing, EverySplitOfABadStreamGivesTheSameFault) {
    const std::string stream = "\n#3\nabc#4\n0123\n##\n";
    for (size_t split = 0; split <= stream.size(); split++) {
        const Outcome outcome = outcome_of({stream.substr(0, split), stream.substr(split)});
        EXPECT_EQ(outcome.fault, kNoChunk) << split;
        EXPECT_TRUE(outcome.texts.empty());
    }
}

TEST(Framing, EverySplitOfTheDelimiterGivesTheSameMessages) {
    // With false starts of a delimiter, and an empty message in between.
    const std::string stream =
        kOldHello + kEnd + "<a>]]>]]</a>]]>]]>" + "<b>]]]>]]>" + "<c/>]]" + kEnd;
    for (size_t first = kOldHello.size(); first <= stream.size(); first++) {
        for (size_t second = first; second <= stream.size(); second++) {
            Framing framing;
            std::vector<std::string> texts;
            for (const std::string& piece :
                 {stream.substr(0, first), stream.substr(first, second - first),
                  stream.substr(second)}) {
                framing.feed(piece);
                for (std::string& text : texts_of(framing)) {
                    texts.push_back(std::move(text));
                }
            }
            EXPECT_EQ(texts,
                      (std::vector<std::string>{kOldHello, "<a>]]>]]</a>", "<b>]", "<c/>]]"}))
                << first << " " << second;
            EXPECT_FALSE(framing.inside_message());
        }
    }
}

TEST(Framing, DelimiterByteByByteEndsTheMessageAtItsLast) {
    Framing framing;
    framing.feed(kOldHello);
    for (const char byte : kEnd) {
        EXPECT_FALSE(framing.next());
        EXPECT_TRUE(framing.inside_message());
        framing.feed(std::string(1, byte));
    }
    EXPECT_EQ(texts_of(framing), std::vector<std::string>{kOldHello});
    EXPECT_FALSE(framing.inside_message());
}

TEST(Framing, OnlyTheHelloAsksForChunks) {
    Framing framing;
    framing.feed(kOldHello + kEnd + "<rpc>urn:ietf:params:netconf:base:1.1</rpc>" + kEnd +
                 "<rpc/>" + kEnd);
    EXPECT_EQ(texts_of(framing).size(), 3U);
    EXPECT_EQ(framing.fault(), nullptr);
}

TEST(Framing, BrokenFramesAreNamed) {
    EXPECT_EQ(fault_of("<rpc/>"), kNoChunk);
    EXPECT_EQ(fault_of("\n\n"), kNoChunk);
    EXPECT_EQ(fault_of("\n#0\n\n##\n"), kNoChunk);
    EXPECT_EQ(fault_of("\n#-1\nx\n##\n"), kNoChunk);
    EXPECT_EQ(fault_of("\n#05\n01234\n##\n"), kNoChunk);
    EXPECT_EQ(fault_of("\n#x\n"), kNoChunk);
    EXPECT_EQ(fault_of("\n#5x\n01234\n##\n"), kNoNumber);
    EXPECT_EQ(fault_of("\n#5 \n01234\n##\n"), kNoNumber);
    EXPECT_EQ(fault_of("\n#99999999999"), kNoNumber);
    EXPECT_EQ(fault_of("\n#99999999999999999999999\n"), kNoNumber);
    EXPECT_EQ(fault_of("\n##\n"), "a message has no chunk");
    EXPECT_EQ(fault_of("\n#2\nabc\n##\n"), kNoChunk);
    EXPECT_EQ(fault_of("xx4\nabcd\n##\n"), kNoChunk);
}

TEST(Framing, MessageWithoutTextIsAFault) {
    constexpr const char* kNoText = "a message is empty or holds a zero byte";
    EXPECT_EQ(fault_of("\n#1\n \n##\n"), kNoText);
    EXPECT_EQ(fault_of("\n#4\n \t\r\n\n##\n"), kNoText);
    EXPECT_EQ(fault_of(std::string("\n#5\n<a>\0 \n##\n", 14)), kNoText);
    EXPECT_EQ(fault_of("\n#21\n<?xml version=\"1.0\"?>\n##\n"), kNoText);
    EXPECT_EQ(fault_of("\n#17\n<?a?> <!-- b -->\n\n##\n"), kNoText);
    EXPECT_EQ(fault_of("\n#10\n<!-- > -->\n##\n"), kNoText);
    EXPECT_EQ(fault_of("\n#7\n<?a> ?>\n##\n"), kNoText);
    EXPECT_EQ(fault_of("\n#12\n<!-- <a/> --\n##\n"), "");
    EXPECT_EQ(fault_of("\n#9\n<!---->a/\n##\n"), "");
    Framing framing;
    framing.feed(kEnd);
    EXPECT_FALSE(framing.next());
    EXPECT_STREQ(framing.fault(), kNoText);
}

TEST(Framing, TruncatedFrameIsIncompleteNotFaulty) {
    const std::string stream = "\n#3\nabc\n##\n";
    for (size_t length = 1; length < stream.size(); length++) {
        const Outcome outcome = outcome_of({stream.substr(0, length)});
        EXPECT_EQ(outcome.fault, "") << length;
        EXPECT_TRUE(outcome.inside) << length;
        EXPECT_TRUE(outcome.texts.empty());
    }
}

TEST(Framing, MessageBeyondTheLimitIsAFault) {
    EXPECT_EQ(fault_of("\n#65537\n"), kTooLong);
    EXPECT_EQ(fault_of("\n#4294967295\n"), kTooLong);
    EXPECT_EQ(fault_of("\n#10\n0123456789\n#65527\n" + std::string(65527, 'x')), kTooLong);
    std::string chunks;
    for (int n = 0; n < 8; n++) {
        chunks += "\n#10000\n" + std::string(10000, 'x');
    }
    EXPECT_EQ(fault_of(chunks), kTooLong);
    Framing framing;
    framing.feed(std::string(Framing::kLongestMessage_bytes + kEnd.size(), 'x'));
    EXPECT_FALSE(framing.next());
    EXPECT_STREQ(framing.fault(), kTooLong);
}

TEST(Framing, BeginningOfATooLongRequestIsKept) {
    const std::string hello = "<hello>urn:ietf:params:netconf:base:1.1</hello>" + kEnd;
    const auto beginning = [](const std::string& stream) {
        Framing framing;
        framing.feed(stream);
        while (framing.next()) {
        }
        const auto message = framing.beginning_of_too_long();
        return message ? (message->chunked ? "chunked " : "delimited ") + message->text.substr(0, 8)
                       : "none";
    };
    EXPECT_EQ(beginning(hello + "\n#3\nabc\n#65537\ndef"), "chunked abcdef");
    EXPECT_EQ(beginning(hello + "\n#99999\n"), "chunked ");
    EXPECT_EQ(beginning(hello + "\n#2\nab\n#65535\n" + std::string(65535, 'x')),
              "chunked abxxxxxx");
    const std::string text = "cd" + std::string(66000, 'x');
    EXPECT_EQ(beginning("<hello/>" + kEnd + text), "delimited cdxxxxxx");
    EXPECT_EQ(beginning("<hello/>" + kEnd + text + kEnd), "delimited cdxxxxxx");
    EXPECT_EQ(beginning(text), "none") << "a hello has no answer";
    EXPECT_EQ(beginning(hello + "\n#x\n"), "none");
}

TEST(Framing, MessageAtTheLimitPasses) {
    const std::string text(65'536, 'x');
    EXPECT_EQ(outcome_of({"\n#65536\n" + text + "\n##\n"}).texts, (std::vector<std::string>{text}));
    const Outcome halves = outcome_of(
        {"\n#32768\n" + text.substr(32'768), "\n#32768\n" + text.substr(32'768), "\n##\n"});
    EXPECT_EQ(halves.texts, (std::vector<std::string>{text}));
}

TEST(Framing, FramesDoNotCountTowardsTheLimit) {
    const std::string text(60'000, 'x');
    std::vector<std::string> pieces;
    for (const char byte : text) {
        pieces.push_back("\n#1\n" + std::string(1, byte));
    }
    pieces.emplace_back("\n##\n");
    EXPECT_EQ(outcome_of(pieces).texts, std::vector<std::string>{text});
    const std::string longest(Framing::kLongestMessage_bytes, 'x');
    Framing framing;
    framing.feed(longest + std::string(kEnd).substr(0, 5));
    EXPECT_FALSE(framing.next());
    framing.feed(kEnd.substr(5));
    EXPECT_EQ(texts_of(framing), std::vector<std::string>{longest});
}

TEST(Framing, MessageBeyondTheLimitIsAFaultAlsoWhenItIsWhole) {
    Framing framing;
    framing.feed(std::string(65'537, 'x') + kEnd);
    EXPECT_FALSE(framing.next());
    EXPECT_STREQ(framing.fault(), kTooLong);
}

TEST(Framing, FirstFaultIsTheOneThatIsNamed) {
    EXPECT_EQ(fault_of("\n#40000\n" + std::string(40'000, 'x') + "\n#40000\n" +
                       std::string(40'000, 'x') + "x"),
              kNoChunk);
    Framing framing;
    framing.feed(std::string(65'537, 'x') + kEnd + kEnd);
    EXPECT_FALSE(framing.next());
    EXPECT_FALSE(framing.next());
    EXPECT_STREQ(framing.fault(), kTooLong);
}

TEST(Framing, NothingIsReadAfterAFault) {
    Framing framing;
    framing.feed(kNewHello + kEnd);
    texts_of(framing);
    framing.feed("\n##\n");
    EXPECT_FALSE(framing.next());
    framing.feed("\n#1\nx\n##\n");
    EXPECT_FALSE(framing.next());
    EXPECT_STREQ(framing.fault(), "a message has no chunk");
}
