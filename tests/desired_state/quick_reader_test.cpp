#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli/desired_state/name_index.h"
#include "cli/desired_state/quick_reader.h"

namespace {

// The quick reader's one promise: it declines, or gives what the tree
// reader gives. Returns whether it took the text.
bool quick_agrees(const std::string& text) {
    // Held in a buffer of its exact size, so that ASan sees any read past it.
    const std::unique_ptr<char[]> exact(new char[text.size()]);
    memcpy(exact.get(), text.data(), text.size());
    DesiredState quick;
    if (!read_desired_state_quickly(std::string_view(exact.get(), text.size()), &quick)) {
        return false;
    }
    DesiredState full;
    std::string error;
    EXPECT_TRUE(read_desired_state_tree(text, "f", &full, &error)) << text << "\n" << error;
    EXPECT_TRUE(quick == full) << text;
    return true;
}

// `text` with 600 bytes of padding after it that changes nothing: a
// comment for YAML, white space for JSON. Services that far from the end
// are read straight through; nearer it, line by line.
std::string padded(const std::string& text) {
    const bool json = text.find_first_not_of(" \t\r\n") != std::string::npos &&
                      text[text.find_first_not_of(" \t\r\n")] == '{';
    const std::string comment = "# " + std::string(600, 'p') + "\n";
    return json                   ? text + std::string(600, ' ')
           : text.ends_with('\n') ? text + comment
                                  : text + "\n" + comment;
}

const std::string kWeb = "version: 1\nservices:\n  web:\n    target: 10.0.0.1:8080\n";

// Shapes that --export and people write: each taken, each the same state.
TEST(QuickReader, TakesCommonShapesAsTheTreeReaderDoes) {
    const std::string cases[] = {
        "# comment\nversion: 1\nservices:\n  service0:\n    target: 10.0.0.0:8080\n"
        "    virtual_port: 80\n    enabled: true\nproxy:\n    address: 127.0.0.1:9050\n"
        "    type: SOCKS5\n    enabled: true\n",
        "---\nversion: 1   # the format\n\nservices:   \n  # a comment\n  'a b':\n"
        "      target: \"1.2.3.4:80\"  # quoted\n      enabled: False\n  \"c.d\":\n"
        "      target: '255.255.255.255:65535'\n      virtual_port: 1\n",
        kWeb + "    clear_services:\n    - example.com\n    - 10.1.2.3\n    enabled: TRUE\n",
        kWeb + "    clear_services:\n        - 'a.example'\n  db:\n    target: 10.0.0.2:1\n",
        kWeb + "    clear_services: []\nproxy: ~\n",
        "version: 1\nservices: {}\nproxy:\n address: 1.1.1.1:1\n type: https\n",
        "version: 1\nservices: NULL\n",
        "version: 1\nservices:\n",
        "proxy: null\nversion: 1\n",
        "{\"version\": 1, \"services\": {\"a\": {\"target\": \"1.2.3.4:80\", \"virtual_port\": 80, "
        "\"enabled\": true, \"clear_services\": [\"x.org\", \"1.1.1.1\"]}}, \"proxy\": "
        "{\"address\": \"1.2.3.4:5\", \"type\": \"Socks5\", \"enabled\": false}}",
        " \r\n\t{ \"services\" : null ,\r\n\t\"version\":1,\"proxy\":null}\n",
        "{\"version\": 1, \"services\": {}}",
        "{\"version\": 1, \"services\": {\"b\": {\"target\": \"1.2.3.4:80\", "
        "\"clear_services\": []}}}",
        // a comment past 64 bytes, no newline at the end
        "# " + std::string(100, 'c') + "\n" + kWeb + "    virtual_port: 65535",
        // and one past 64 bytes at the end, with no newline after it
        kWeb + "# " + std::string(100, 'c'),
        "version: 1\nservices:  # all of them\n  web:\n    target: 10.0.0.1:8080\n",
        // fields in any order, a comment or a blank line between them
        "version: 1\nservices:\n  web:\n    target: 10.0.0.1:8080\n  # later\n    enabled: false\n"
        "  db:\n    enabled: true\n    target: 10.0.0.2:1\n\n    virtual_port: 443\n",
        // the longest line read in one pass: 63 bytes
        "version: 1\nservices:\n  " + std::string(60, 'n') + ":\n    target: 0.0.0.0:1\n",
    };
    for (const std::string& text : cases) {
        EXPECT_TRUE(quick_agrees(text)) << text;
        EXPECT_TRUE(quick_agrees(padded(text))) << text;
    }
}

// Files the tree reader may take but reads in ways this reader does not
// copy, and files it refuses: each declined.
TEST(QuickReader, DeclinesWhatItDoesNotKnow) {
    const std::string cases[] = {
        // YAML it leaves alone
        "version: 1\nservices:\n  web: {target: 1.2.3.4:80}\n",
        "version: 1\nservices:\n  web:\n\ttarget: 1.2.3.4:80\n",
        "version: 1\r\nservices:\r\n",
        "version: 1\nservices:\n  caf\xc3\xa9:\n    target: 1.2.3.4:80\n",
        kWeb + "    enabled: &a true\n",
        kWeb + "    enabled: !!bool true\n",
        kWeb + "    enabled:\n      true\n",
        "version: 1\nservices:\n  web:\n    target: 10.0.0.1\n      :8080\n",
        "version: 1\nservices:\n  \"w\\x65b\":\n    target: 1.2.3.4:80\n",
        "version: 1\nservices:\n  'it''s':\n    target: 1.2.3.4:80\n",
        "version:1\n",
        "--- version: 1\n",
        "version: 1\n...\n",
        "version: 1\n---\nversion: 1\n",
        "%YAML 1.2\n---\nversion: 1\n",
        "  version: 1\n",
        "version: 1\nservices:\n  web :\n    target: 1.2.3.4:80\n",
        "version: 1\nservices:\n  -web:\n    target: 1.2.3.4:80\n",
        kWeb + "    clear_services: [a.org]\n",
        kWeb + "    target2: x\n",
        "version: 1 # x\nservices:\n  web:\n    target: 1.2.3.4:80#x\n",
        // refused by the tree reader
        "",
        "services: {}\n",
        "version: 2\n",
        "version: '1'\n",
        "version: 1\nversion: 1\n",
        "version: 1\nservices:\n  web:\n    virtual_port: 80\n",
        kWeb + "  web:\n    target: 1.2.3.4:81\n",
        kWeb + "    target: 1.2.3.4:81\n",
        kWeb + "    virtual_port: 0\n",
        kWeb + "    virtual_port: '80'\n",
        kWeb + "    enabled: yes\n",
        kWeb + "    clear_services:\n    - -bad-\n",
        kWeb + "    clear_services:\n    -\n",
        "version: 1\nservices:\n  web:\n    target: 1.2.3.04:80\n",
        "version: 1\nservices:\n  web:\n    target: 1.2.3.4:080\n",
        "version: 1\nservices:\n  web:\n    target: 256.2.3.4:80\n",
        "version: 1\nservices:\n  web:\n    target: 1.2.3.4:65536\n",
        "version: 1\nservices:\n  web:\n    target: 1.2.3:80\n",
        "version: 1\nservices:\n  web:\n    target: ~\n",
        "version: 1\nservices:\n  web:\n    target: 01.2.3.4:80\n",
        "version: 1\nservices:\n  web:\n    target: 1.2.3.4:0\n",
        "version: 1\nservices:\n  web:\n    target: 1.2.3.4.5:80\n",
        "version: 1\nservices:\n  web:\n    target: 1.2.3.4:80:1\n",
        kWeb + "    virtual_port: 65536\n",
        kWeb + "    enabled: trueX    virtual_port: 80\n  db:\n    target: 1.2.3.4:1\n",
        "{\"version\": 1, \"services\": {\"a\": {\"target\": \"1.2.3.4:80\", "
        "\"target\": \"1.2.3.4:81\"}}}",
        kWeb + "    virtual_port: 08\n",
        // a line of content past 63 bytes is the tree reader's
        kWeb + "    enabled: true  # " + std::string(60, 'c') + "\n",
        "version: 1\nservices:\n  " + std::string(256, 'n') + ":\n    target: 1.2.3.4:80\n",
        "version: 1\nservices: []\n",
        "version: 1\nproxy: {}\n",
        "version: 1\nproxy:\n  address: 1.2.3.4:5\n  type: ftp\n",
        "version: 1\napi_key: x\n",
        // JSON it leaves alone or the tree reader refuses
        "{\"version\": 1, \"services\": {\"w\\u0065b\": {\"target\": \"1.2.3.4:80\"}}}",
        "{\"version\": 1.0}",
        "{\"version\": 1, \"services\": {\"a\": {\"target\": \"1.2.3.4:80\", "
        "\"virtual_port\": 8e1}}}",
        "{\"version\": 1, \"services\": {\"a\": {\"target\": \"1.2.3.4:80\", "
        "\"virtual_port\": \"80\"}}}",
        "{\"version\": 1, \"services\": {\"a\": {\"target\": \"1.2.3.4:80\"}, "
        "\"a\": {\"target\": \"1.2.3.4:80\"}}}",
        "{\"version\": 1, \"version\": 1}",
        "{\"version\": 1,}",
        "{\"version\": 1} x",
        "{\"version\": 1, \"services\": {\"a\": {\"target\": \"1.2.3.4:80\", "
        "\"enabled\": \"true\"}}}",
        "{\"version\": 1, \"services\": {\"a\": {\"target\": \"1.2.3.4:80\", "
        "\"enabled\": nul}}}",
        "{\"version\": 1, \"services\": []}",
        "{\"version\": 1, \"services\": {\"a\": {\"target\": \"1.2.3.4:80\", \"enabled\": tru",
        "{\"version\": 1, \"services\": {\"a",
    };
    for (const std::string& text : cases) {
        EXPECT_FALSE(quick_agrees(text)) << text;
        EXPECT_FALSE(quick_agrees(padded(text))) << text;
    }
}

// Names of every length up to 24 that differ from one another in a single
// byte, wherever it is: the index holds each apart (it compares short names
// by words from both ends, and longer ones by a word from the end first).
TEST(NameIndex, TellsApartNamesThatDifferInOneByte) {
    for (size_t length = 1; length <= 24; length++) {
        std::vector<std::string> names{std::string(length, 'n')};
        for (size_t at = 0; at < length; at++) {
            names.push_back(names[0]);
            names.back()[at] = 'm';
        }
        NameIndex index;
        for (size_t i = 0; i < names.size(); i++) {
            EXPECT_TRUE(index.add(names[i], static_cast<uint32_t>(i))) << names[i];
        }
        for (size_t i = 0; i < names.size(); i++) {
            const uint32_t* found = index.find(names[i]);
            ASSERT_NE(found, nullptr) << names[i];
            EXPECT_EQ(*found, i) << names[i];
        }
        uint32_t found = 99;
        EXPECT_FALSE(index.add(std::string(length, 'n'), 7, &found));
        EXPECT_EQ(found, 0u);
    }
}

}  // namespace
