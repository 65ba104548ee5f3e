// Byte-level: the RFC 6455 examples read in every chunking, the reader's
// edge cases, the builder's key placement, the accept value and the header
// lookup.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "core/random_bytes.h"
#include "ws_test_support.h"

namespace {

std::vector<uint8_t> operator+(std::vector<uint8_t> left, const std::vector<uint8_t>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

std::string pattern(size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += static_cast<char>(i * 7);
    }
    return text;
}

std::vector<uint8_t> bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

const auto kHello = hex("81 05 48 65 6c 6c 6f");
const auto kMaskedHello = hex("81 85 37 fa 21 3d 7f 9f 4d 51 58");
const auto kFragmented = hex("01 03 48 65 6c 80 02 6c 6f");
const auto kPing = hex("89 05 48 65 6c 6c 6f");
const auto kMaskedPong = hex("8a 85 37 fa 21 3d 7f 9f 4d 51 58");
const auto kBinary256 = hex("82 7e 01 00") + bytes_of(pattern(256));
const auto kBinary64k = hex("82 7f 00 00 00 00 00 01 00 00") + bytes_of(pattern(65536));
const Message kText{"Hello", 0};

// Cut positions: every way of cutting n bytes, or else every single cut and
// byte by byte in the first 300 bytes (byte-wise appends of a large payload
// are quadratic in the queue's exact-fit growth), and 4095..4097-byte pieces.
std::vector<std::vector<size_t>> cut_sets(size_t n, bool every) {
    std::vector<std::vector<size_t>> sets(1);  // whole
    if (every) {
        for (uint64_t mask = 1; mask < uint64_t{1} << (n - 1); ++mask) {
            sets.emplace_back();
            for (size_t at = 1; at < n; ++at) {
                if (mask >> (at - 1) & 1) {
                    sets.back().push_back(at);
                }
            }
        }
        return sets;
    }
    sets.emplace_back();
    for (size_t at = 1; at < std::min<size_t>(n, 300); ++at) {
        sets.push_back({at});
        sets[1].push_back(at);
    }
    for (size_t size : {4095, 4096, 4097}) {
        sets.emplace_back();
        for (size_t at = size; at < n; at += size) {
            sets.back().push_back(at);
        }
    }
    return sets;
}

struct Vector {
    const char* name;
    std::vector<uint8_t> stream;
    bool every_chunking;
    std::vector<Message> expected;
};
class RfcVectors : public ::testing::TestWithParam<Vector> {};

TEST_P(RfcVectors, SameMessagesInEveryChunking) {
    const auto& stream = GetParam().stream;
    for (const auto& cuts : cut_sets(stream.size(), GetParam().every_chunking)) {
        ScriptedPeer peer;
        size_t from = 0;
        for (size_t to : cuts) {
            peer.write({stream.begin() + from, stream.begin() + to});
            from = to;
        }
        peer.write({stream.begin() + from, stream.end()});
        ASSERT_FALSE(peer.dropped || peer.record.disconnects > 0) << cuts.size() << " cuts";
        ASSERT_EQ(peer.record.messages, GetParam().expected) << cuts.size() << " cuts";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Frames, RfcVectors,
    ::testing::Values(Vector{"unmasked_text", kHello, true, {kText}},
                      Vector{"masked_text", kMaskedHello, true, {kText}},
                      Vector{"fragmented_text", kFragmented, true, {kText}},
                      Vector{"ping_then_text", kPing + kHello, true, {kText}},
                      Vector{"binary_256", kBinary256, false, {{pattern(256), 1}}},
                      Vector{"binary_65536", kBinary64k, false, {{pattern(65536), 1}}},
                      // Headers only grow, or shrink by less than the next payload, so no
                      // frame reads into the next one.
                      Vector{"several_frames",
                             kFragmented + kHello + kMaskedHello + kPing + kMaskedPong +
                                 kBinary256 + kBinary64k,
                             false,
                             {kText, kText, kText, {pattern(256), 1}, {pattern(65536), 1}}}),
    [](const auto& test) { return std::string(test.param.name); });

struct Case {
    const char* name;
    std::vector<std::string> writes;
    bool require_mask;
    std::vector<Message> expected;
    bool dropped;  // and on_disconnect called once
};
class ReaderCases : public ::testing::TestWithParam<Case> {};

TEST_P(ReaderCases, MessagesAndDrops) {
    ScriptedPeer peer(GetParam().require_mask);
    for (const auto& write : GetParam().writes) {
        peer.write(hex(write));
    }
    EXPECT_EQ(peer.record.messages, GetParam().expected);
    EXPECT_EQ(peer.dropped, GetParam().dropped);
    EXPECT_EQ(peer.record.disconnects, GetParam().dropped ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, ReaderCases,
    ::testing::Values(
        Case{"empty_close", {"88 00"}, false, {}, true},
        Case{"one_byte_fragments", {"01 01 41", "80 01 42"}, false, {{"AB", 0}}, false},
        Case{"binary_fragments", {"02 01 41 00 01 42 80 01 43"}, false, {{"ABC", 1}}, false},
        Case{"final_text_inside_fragments",
             {"01 01 41 81 01 42 80 01 43"},
             false,
             {{"B", 0}, {"AC", 0}},
             false},
        Case{"data_fragment_inside_fragments", {"01 01 41 01 01 42"}, false, {}, true},
        Case{"final_continuation_alone", {"80 01 41"}, false, {}, true},
        Case{"loose_continuation", {"00 01 41 81 01 42 80 01 43"}, false, {{"B", 0}}, true},
        Case{"unknown_opcodes_ignored", {"83 01 41 8b 00 81 01 42"}, false, {{"B", 0}}, false},
        Case{"mask_required_missing", {"81 01 41"}, true, {}, true},
        Case{"mask_required_present", {"81 85 37 fa 21 3d 7f 9f 4d 51 58"}, true, {kText}, false},
        // After a 6-byte header the next header read asks for 6 bytes: the
        // 1-byte payload swallows the next frame, then waits for more bytes.
        Case{"short_frame_takes_following_bytes",
             {"81 85 37 fa 21 3d 7f 9f 4d 51 58", "81 01 41 81 01 42", "81 01 43"},
             false,
             {kText, {"A\x81\x01\x42\x81\x01\x43", 0}},
             false}),
    [](const auto& test) { return std::string(test.param.name); });

// A payload past 4096 bytes is asked for whole in one request by the bulk
// reader, and in reads of at most 4096 (checked by `read`) by read_frame.
TEST(ReadFrame, LargePayloadInOneRequestOnlyInBulk) {
    std::vector<uint8_t> frame = hex("82 7f 00 00 00 00 00 01 86 a0");  // 100,000 bytes
    const std::string payload(100'000, 'p');
    frame.insert(frame.end(), payload.begin(), payload.end());
    for (const bool bulk : {true, false}) {
        ScriptedPeer peer;
        peer.bulk = bulk;
        peer.write(frame);
        ASSERT_EQ(peer.record.messages, (std::vector<Message>{{payload, 1}}));
        EXPECT_EQ(peer.payload_reads,
                  bulk ? std::vector<int64_t>{100'000} : std::vector<int64_t>{});
    }
}

TEST(ReadFrame, DrainedSocketIsToldNotDropped) {
    ScriptedPeer peer;
    EXPECT_EQ(peer.read_frame_once(), 0);
    EXPECT_EQ(peer.record.disconnects, 1);
}

enum Key { kWhole, kLastTwo, kZero };  // wire key from a random key k0 k1 k2 k3
struct Layout {
    uint64_t length;
    uint64_t header_size;
    uint8_t length_code;
    Key key;
};
class BuilderLayout : public ::testing::TestWithParam<Layout> {};

TEST_P(BuilderLayout, KeyPlacedByLowByteOfLengthAndFrameParses) {
    const auto [length, header_size, code, key_kind] = GetParam();
    const std::string payload = pattern(length);
    Random.seed(1234);
    const auto random = static_cast<uint32_t>(Random.next());
    const uint8_t k[4] = {uint8_t(random >> 24), uint8_t(random >> 16), uint8_t(random >> 8),
                          uint8_t(random)};
    const uint8_t keys[3][4] = {{k[0], k[1], k[2], k[3]}, {k[2], k[3], 0, 0}, {0, 0, 0, 0}};
    Random.seed(1234);
    uint64_t size = 0;
    uint8_t* frame = websocket_build_frame(reinterpret_cast<const uint8_t*>(payload.data()), length,
                                           WS_OPCODE_BINARY, true, true, &size);
    ASSERT_EQ(size, header_size + length);
    EXPECT_EQ(frame[0], 0x82);
    EXPECT_EQ(frame[1], 0x80 | code);
    EXPECT_EQ(memcmp(frame + header_size - 4, keys[key_kind], 4), 0);
    ScriptedPeer peer;
    peer.write({frame, frame + size});
    EXPECT_EQ(peer.record.messages, (std::vector<Message>{{payload, 1}}));
    free(frame);
}

INSTANTIATE_TEST_SUITE_P(Lengths, BuilderLayout,
                         ::testing::Values(Layout{125, 6, 125, kWhole}, Layout{126, 8, 126, kWhole},
                                           Layout{127, 8, 126, kZero}, Layout{200, 8, 126, kZero},
                                           Layout{300, 8, 126, kLastTwo},
                                           Layout{65535, 8, 126, kZero},
                                           Layout{65536, 14, 127, kZero}));

TEST(Accept, FromNonceAndGuid) {
    const std::pair<std::string, const char*> cases[] = {
        {"dGhlIHNhbXBsZSBub25jZQ==", "s3pPLMBiTxaQ9kYGzzhZRbK+xOo="},  // RFC 6455 example
        {"AAECAwQFBgcICQoLDA0ODw==", "Bz3qJYTGdOe8gUSpLosEdiLKDrk="},  // bytes 00..0F
        {std::string(987, 'A'), "TA2iPmVJYEvBoHWOj/UPGoPH8us="},
        {std::string(988, 'A'), nullptr}};
    for (const auto& [nonce, expected] : cases) {
        uint64_t length = 0;
        char* accept = WebSocket.compute_websocket_accept(nonce.c_str(), &length);
        EXPECT_STREQ(accept, expected) << nonce.size();
        EXPECT_EQ(length, expected != nullptr ? 28u : 0u);
        free(accept);
    }
    EXPECT_EQ(WebSocket.compute_websocket_accept(nullptr, nullptr), nullptr);
}

// The lookup cuts a value as strstr and strtok_r ("key:" anywhere, then
// ": " and ": \r" as delimiters) always did, on answers that bend it.
std::string looked_up(const char* found) {
    return found != nullptr ? found : "<none>";
}

std::string cut_as_strtok(std::string header, const char* key, size_t length) {
    char* found = strstr(header.data(), (std::string(key) + ":").c_str());
    if (found == nullptr) {
        return "<none>";
    }
    char* cursor = nullptr;
    strtok_r(found, ": ", &cursor);
    char* value = strtok_r(nullptr, ": \r", &cursor);
    return value == nullptr || value >= header.data() + length ? "<none>" : value;
}

TEST(HeaderLookup, CutsAsStrtokDid) {
    const std::pair<const char*, const char*> cases[] = {
        {"HTTP/1.1 101\r\nSec-WebSocket-Accept: abc=\r\n\r\n", "Sec-WebSocket-Accept"},
        {"A: 1\r\nKey:value\r\n", "Key"},
        {"Key: :: \r v:w\r\n", "Key"},
        {"X-Key: inner\r\nKey: outer\r\n", "Key"},
        {"Key:  \r\n", "Key"},
        {"Key:", "Key"},
        {"key: lower\r\n", "Key"},
        {"K K: spaced\r\n", "K K"},
        {"a: 1: 2\r\n", ""},
        {"Key: far\r\n", "Key"}};
    for (const auto& [header, key] : cases) {
        for (size_t length : {strlen(header), size_t{6}}) {
            std::string text = header;
            EXPECT_EQ(looked_up(WebSocket.find_value_from_http_header(text.data(), length, key)),
                      cut_as_strtok(header, key, length))
                << header << " / " << length;
        }
    }
}

}  // namespace
