#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "sylvshared/json.h"

namespace {

// Owning handle so a failed assertion does not leak.
struct Value {
    JsonValue* handle;
    explicit Value(JsonValue* value) : handle(value) {}
    ~Value() { json_free_value(handle); }
};

std::string serialized(const JsonValue* value) {
    char buffer[1000];
    return json_serialize(value, buffer, sizeof buffer) >= 0 ? buffer : "<failed>";
}

TEST(Json, EnvelopeKeepsOrderAndCopiesChild) {
    Value message(json_create_json_object());
    JsonValue* data = json_create_json_object();
    ASSERT_EQ(json_add_string_child(message.handle, "command", "get_tenants"), 0);
    ASSERT_EQ(json_add_int_child(message.handle, "id", 3), 0);
    ASSERT_EQ(json_add_boolean_child(data, "enabled", 7), 0);
    ASSERT_EQ(json_add_string_child(data, "name", "svc"), 0);
    ASSERT_EQ(json_add_child_to_object(message.handle, "data", data), 0);
    json_free_value(data);
    EXPECT_EQ(serialized(message.handle),
              R"({"command":"get_tenants","id":3,"data":{"enabled":true,"name":"svc"}})");

    Value copy(json_get_json_value(message.handle, "data"));
    ASSERT_EQ(json_add_int_child(copy.handle, "extra", 1), 0);
    EXPECT_EQ(serialized(copy.handle), R"({"enabled":true,"name":"svc","extra":1})");
    EXPECT_EQ(json_is_key_present(message.handle, "extra"), 0);
    EXPECT_EQ(json_get_json_value(message.handle, "missing"), nullptr);
}

TEST(Json, SerializeRefusesWhatDoesNotFit) {
    Value value(json_parse(R"({"key": "value"})"));
    const std::string text = R"({"key":"value"})";
    char buffer[32] = "stale";
    EXPECT_EQ(json_serialize(value.handle, buffer, text.size() + 1), static_cast<int>(text.size()));
    EXPECT_EQ(buffer, text);
    // One byte short (no room for the NUL): nothing partial is left.
    EXPECT_LT(json_serialize(value.handle, buffer, text.size()), 0);
    EXPECT_STREQ(buffer, "");
    strcpy(buffer, "stale");
    EXPECT_LT(json_serialize(nullptr, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
}

// Bytes that are not UTF-8, from the agent (parsed) and from the caller
// (serialised): each bad sequence becomes one U+FFFD, the rest is kept.
// clang-format off
const struct { const char* raw; const char* decoded; } kUtf8[] = {
    {"caf\xe9!", "caf\uFFFD!"},                                  // Latin-1
    {"a\x80" "b", "a\uFFFDb"},                                     // lone continuation
    {"\xc0\xaf", "\uFFFD\uFFFD"},                                // overlong '/'
    {"\xed\xa0\x80", "\uFFFD\uFFFD\uFFFD"},                      // encoded surrogate
    {"\xf4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},             // past U+10FFFF
    {"ab\xe2\x82", "ab\uFFFD"},                                   // cut at the end
    {"\xe2\x82 \xf0\x9f\x98", "\uFFFD \uFFFD"},                   // cut before more
    {"h\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "h\u00e9 \u20ac \U0001F600"},  // kept
};
// clang-format on

TEST(Json, BadUtf8BecomesReplacementCharacter) {
    for (const auto& c : kUtf8) {
        const std::string decoded = reinterpret_cast<const char*>(c.decoded);
        Value parsed(json_parse(("{\"k\":\"" + std::string(c.raw) + "\"}").c_str()));
        char buffer[64] = {};
        EXPECT_GE(json_get_string_value(parsed.handle, "k", buffer, sizeof buffer), 0) << c.raw;
        EXPECT_EQ(buffer, decoded) << c.raw;
        Value built(json_create_json_object());
        ASSERT_EQ(json_add_string_child(built.handle, "k", c.raw), 0);
        EXPECT_EQ(serialized(built.handle), "{\"k\":\"" + decoded + "\"}") << c.raw;
    }
}

// A string written as text is the bytes the serialiser writes for the same
// member, plain or not: escapes, controls, DEL, bad and good UTF-8.
TEST(JsonText, StringIsTheSerialisedString) {
    const char* texts[] = {"plain",    "",
                           "q\"b\\s/", "\x01\b\f\n\r\t\x1f",
                           "del\x7f",  "h\xc3\xa9 \xf0\x9f\x98\x80",
                           "caf\xe9",  "\xc0\xaf\xed\xa0\x80"};
    for (const char* text : texts) {
        Value built(json_create_json_object());
        ASSERT_EQ(json_add_string_child(built.handle, "k", text), 0);
        char buffer[64];
        JsonText written;
        json_text_start(&written, buffer, sizeof buffer);
        json_text_raw(&written, "{\"k\":");
        json_text_string(&written, text);
        json_text_raw(&written, "}");
        EXPECT_FALSE(written.failed) << text;
        EXPECT_EQ(std::string(buffer, written.length), serialized(built.handle)) << text;
    }
}

// Numbers at their limits; a text fills its buffer up to the NUL and not
// one byte more (as json_serialize), and a cut takes back a failure.
TEST(JsonText, NumbersLimitsAndCut) {
    char digits[21];
    JsonText text;
    const struct {
        int64_t value;
        const char* digits;
    } numbers[] = {{0, "0"},
                   {-7, "-7"},
                   {65535, "65535"},
                   {INT64_MIN, "-9223372036854775808"},
                   {INT64_MAX, "9223372036854775807"}};
    for (const auto& number : numbers) {
        json_text_start(&text, digits, sizeof digits);
        json_text_int(&text, number.value);
        EXPECT_EQ(text.failed ? std::string("<failed>") : std::string(digits), number.digits);
    }
    char buffer[8];
    json_text_start(&text, buffer, sizeof buffer);
    json_text_raw(&text, "1234");
    json_text_raw(&text, "567");
    EXPECT_FALSE(text.failed);
    json_text_raw(&text, "8");
    EXPECT_TRUE(text.failed);
    json_text_raw(&text, "");
    EXPECT_STREQ(buffer, "1234567");
    json_text_cut(&text, 4);
    EXPECT_FALSE(text.failed);
    json_text_string(&text, "x");
    EXPECT_STREQ(buffer, "1234\"x\"");
}

// Escapes, numbers of every kind and a repeated key (first place, last
// value) survive parse, serialise and parse again.
TEST(Json, ParsedTextWritesBackTheSame) {
    const char* text = R"({"a":1,"b":[true,false,null,-5,1.5,"x\n\"\u00e9\ud83d\ude00\ud800"],)"
                       R"("a":2,"c":{"u":18446744073709551615,"e":[],"o":{}}})";
    const std::string expected =
        "{\"a\":2,\"b\":[true,false,null,-5,1.5,\"x\\n\\\"\u00e9\U0001F600\uFFFD\"],"
        "\"c\":{\"u\":18446744073709551615,\"e\":[],\"o\":{}}}";
    Value first(json_parse(text));
    EXPECT_EQ(serialized(first.handle), expected);
    EXPECT_EQ(json_get_int_value(first.handle, "a"), 2);
    Value again(json_parse(serialized(first.handle).c_str()));
    EXPECT_EQ(serialized(again.handle), expected);
    // A parsed value can still be changed; what was taken from it is not.
    Value c(json_get_json_value(first.handle, "c"));
    ASSERT_EQ(json_add_int_child(first.handle, "d", 3), 0);
    EXPECT_EQ(json_get_int_value(first.handle, "d"), 3);
    EXPECT_EQ(serialized(c.handle), R"({"u":18446744073709551615,"e":[],"o":{}})");
}

// Escaped quotes at every offset of a 16-byte block, alone, in pairs and
// next to an escaped backslash, a control escape or a byte outside ASCII:
// each string decodes to what was escaped.
TEST(Json, DenseEscapedQuotesDecodeAtEveryOffset) {
    for (const char* unit : {"\"", "a\"", "ab\"\"", "\\\"", "\n\"", "\xc3\xa9\""}) {
        for (size_t lead = 0; lead < 17; ++lead) {
            std::string decoded(lead, 'x');
            for (int i = 0; i < 12; ++i) {
                decoded += unit;
            }
            std::string escaped;
            for (const char c : decoded) {
                escaped += c == '"' || c == '\\' ? std::string("\\") + c
                           : c == '\n'           ? std::string("\\n")
                                                 : std::string(1, c);
            }
            Value value(json_parse(("{\"k\": \"" + escaped + "\"}").c_str()));
            char got[256] = {};
            ASSERT_EQ(json_get_string_value(value.handle, "k", got, sizeof got),
                      static_cast<int>(decoded.size()))
                << escaped;
            EXPECT_EQ(got, decoded) << escaped;
        }
    }
}

// Expected reads of each member as string (null: refused), int and bool.
// clang-format off
const struct { const char* key; const char* as_string; int as_int; int as_bool; } kMembers[] = {
    {"text", "hello", -1, -1},  {"yes", "true", -1, 1},      {"no", "false", -1, 0},
    {"quoted", "true", -1, -1}, {"zero", nullptr, 0, -1},    {"negative", nullptr, -5, -1},
    {"huge", nullptr, -1, -1},  {"real", nullptr, -1, -1},   {"nothing", nullptr, -1, -1},
    {"list", nullptr, -1, -1},  {"object", nullptr, -1, -1}, {"missing", nullptr, -1, -1},
};
// clang-format on

TEST(Json, MemberReadsByType) {
    Value doc(json_parse(R"({"text":"hello","yes":true,"no":false,"quoted":"true","zero":0,
        "negative":-5,"huge":3000000000,"real":1.5,"nothing":null,"list":[],"object":{}})"));
    ASSERT_NE(doc.handle, nullptr);
    char buffer[16];
    Value list(json_create_json_list());
    EXPECT_EQ(json_get_string_value(list.handle, "k", buffer, sizeof buffer), -1);
    EXPECT_EQ(json_add_string_child(list.handle, "k", "v"), -1);
    for (const auto& c : kMembers) {
        int length = json_get_string_value(doc.handle, c.key, buffer, sizeof buffer);
        if (c.as_string != nullptr) {
            EXPECT_EQ(length, static_cast<int>(strlen(c.as_string))) << c.key;
            EXPECT_STREQ(buffer, c.as_string) << c.key;
        } else {
            EXPECT_EQ(length, -1) << c.key;
        }
        EXPECT_EQ(json_get_int_value(doc.handle, c.key), c.as_int) << c.key;
        EXPECT_EQ(json_get_bool_value(doc.handle, c.key), c.as_bool) << c.key;
    }
}

TEST(Json, StringCutToBufferOnCharacterBoundary) {
    Value doc(json_parse(R"({"a":"abcdef","u":"h\u00e9llo"})"));
    char buffer[4];
    EXPECT_EQ(json_get_string_value(doc.handle, "a", buffer, sizeof buffer), 3);
    EXPECT_STREQ(buffer, "abc");
    // "h" then the two bytes of "é" do not fit in 3: the cut keeps "h" only.
    EXPECT_EQ(json_get_string_value(doc.handle, "u", buffer, 3), 1);
    EXPECT_STREQ(buffer, "h");
}

TEST(Json, ListOfMixedElements) {
    JsonValue* message = json_parse(R"({"data":{"tenants":["{\"name\":\"a\"}",2,null,{"x":1},
        "b"],"empty":[]}})");
    // Texts outlive the message and the value they were read from.
    Value doc(json_get_json_value(message, "data"));
    json_free_value(message);
    int count = -1;
    JsonListItem** items = json_get_list_value(doc.handle, "tenants", &count);
    ASSERT_NE(items, nullptr);
    ASSERT_EQ(count, 5);
    const int types[] = {JSON_LIST_ITEM_STRING, JSON_LIST_ITEM_OTHER, JSON_LIST_ITEM_OTHER,
                         JSON_LIST_ITEM_OTHER, JSON_LIST_ITEM_STRING};
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(items[i]->type, types[i]) << i;
        EXPECT_EQ(items[i]->text == nullptr, types[i] != JSON_LIST_ITEM_STRING) << i;
    }
    json_free_value(doc.handle);
    doc.handle = nullptr;
    Value tenant(json_parse(items[0]->text));
    char name[4];
    EXPECT_EQ(json_get_string_value(tenant.handle, "name", name, sizeof name), 1);
    EXPECT_STREQ(items[4]->text, "b");
    json_free_list_value(items, count);
    doc.handle = json_parse(R"({"empty":[]})");

    items = json_get_list_value(doc.handle, "empty", &count);
    EXPECT_NE(items, nullptr);
    EXPECT_EQ(count, 0);
    json_free_list_value(items, count);
    EXPECT_EQ(json_get_list_value(doc.handle, "missing", &count), nullptr);
    json_free_list_value(nullptr, 3);
}

// Strings long enough to be left where they lie read, write and list as
// the same text parsed whole: every escape, bad UTF-8, DEL and surrogates,
// at each offset of a 64-byte step and past its end (a backslash last in
// one step escapes the first byte of the next). A control byte or a bad
// escape there is refused.
TEST(Json, InPlaceReadsAsParsedWhole) {
    const std::string escapes[] = {R"(\")",        R"(\\)",           R"(\/)",     R"(\b\f\n\r\t)",
                                   R"(\u00e9)",    R"(\ud83d\ude00)", R"(\ud800)", "\xff\xc3",
                                   "\xe2\x82\xac", R"(\u0000)",       "\x7f",      R"(\\\")"};
    for (size_t offset = 0; offset < 70; ++offset) {
        for (const char* bad : {"\x01", R"(\x)", R"(\\\x)"}) {
            const std::string text =
                R"({"s":")" + std::string(offset, 'a') + bad + std::string(64, 'b') + "\"}";
            EXPECT_EQ(json_parse_in_place(text.c_str()), nullptr) << text;
        }
        // Cut off after a backslash, wherever the text ends in its last step.
        const std::string cut = R"({"s":")" + std::string(offset + 60, 'a') + "\\";
        EXPECT_EQ(json_parse_in_place(cut.c_str()), nullptr) << cut;
    }
    for (const std::string& escape : escapes) {
        for (size_t offset = 0; offset < 70; ++offset) {
            const std::string inner = std::string(offset, 'a') + escape + std::string(64, 'b');
            const std::string text = R"({"s":")" + inner + R"(","l":[")" + inner + R"(",1]})";
            Value whole(json_parse(text.c_str()));
            Value in_place(json_parse_in_place(text.c_str()));
            ASSERT_NE(in_place.handle, nullptr) << text;
            EXPECT_EQ(serialized(in_place.handle), serialized(whole.handle)) << text;
            for (const size_t size : {256, 70, 18}) {
                char expected[256] = {};
                char got[256] = {};
                EXPECT_EQ(json_get_string_value(in_place.handle, "s", got, size),
                          json_get_string_value(whole.handle, "s", expected, size));
                EXPECT_STREQ(got, expected) << text;
            }
            int count = 0;
            JsonListItem** expected = json_get_list_value(whole.handle, "l", &count);
            JsonListItem** got = json_get_list_value(in_place.handle, "l", &count);
            ASSERT_NE(got, nullptr);
            EXPECT_STREQ(got[0]->text, expected[0]->text) << text;
            json_free_list_value(expected, count);
            json_free_list_value(got, count);
        }
    }
}

// Invalid text, and the depth and value-count bounds a peer cannot push past
// (brackets and commas inside strings, escaped quotes included, are text).
TEST(Json, ParseRefusesInvalidTooDeepAndTooLargeText) {
    auto repeat = [](size_t count, const std::string& piece) {
        std::string text;
        for (size_t i = 0; i < count; ++i) {
            text += piece;
        }
        return text;
    };
    const auto nested = [&](size_t depth) { return repeat(depth, "[") + repeat(depth, "]"); };
    const auto members = [](int count) {
        std::string text = R"("k0":0)";
        for (int i = 1; i < count; ++i) {
            text += ",\"k" + std::to_string(i) + "\":0";
        }
        return text;
    };
    // clang-format off
    const std::pair<std::string, bool> cases[] = {
        {"", false}, {"{", false}, {R"({"a":})", false}, {"nul", false}, {"[1,]", false},
        {"{} x", false}, {"01", false}, {"[1.]", false}, {"\"\\x\"", false},
        {"\"\\u12\"", false}, {"\"a\nb\"", false}, {"\"open", false}, {"\"\\", false},
        {nested(128), true}, {nested(129), false}, {nested(100000), false},
        {R"({"s":"\")" + repeat(200, "[") + "\"}", true},
        // The list is a value too: 262,143 elements are the most it may hold.
        {"[1" + repeat(262142, ",1") + "]", true}, {"[1" + repeat(262143, ",1") + "]", false},
        {"[\"" + repeat(300000, ",") + "\"]", true},
        // Members are checked for repeats: 2,000 cost 2 million comparisons, 3,000 too many.
        {"{" + members(2000) + "}", true}, {"{" + members(3000) + "}", false},
        // Long strings, which a parse in place checks without decoding.
        {"[\"" + repeat(70, "a") + "\\x\"]", false}, {"[\"" + repeat(70, "a") + "\\u12g4\"]", false},
        {"[\"" + repeat(70, "\\\"") + "\x01\"]", false}, {"[\"" + repeat(70, "a") + "\\", false},
        {"[\"" + repeat(70, "a") + "\\\"]", false}, {"[\"" + repeat(70, "\\/") + "\"]", true}};
    // clang-format on
    for (const auto& [text, parses] : cases) {
        Value value(json_parse(text.c_str()));
        EXPECT_EQ(value.handle != nullptr, parses) << text.substr(0, 40) << " " << text.size();
        Value in_place(json_parse_in_place(text.c_str()));
        EXPECT_EQ(in_place.handle != nullptr, parses) << text.substr(0, 40) << " " << text.size();
    }
    EXPECT_EQ(json_parse(nullptr), nullptr);
}

}  // namespace
