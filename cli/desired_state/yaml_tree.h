// YamlNode: a YAML 1.2 document read through libfyaml into a small tree of
// scalars, mappings and sequences, each with the place it starts. Internal
// to the desired-state reader; only it includes libfyaml.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// 1-based line and column, as editors count them.
struct TextMark {
    int line = 1;
    int column = 1;
};

struct YamlNode {
    enum class Kind { scalar, mapping, sequence };
    Kind kind = Kind::scalar;
    TextMark mark{};
    std::string text{};  // a scalar's value
    bool plain = false;  // a plain (unquoted) scalar: its type follows from its text
    // A mapping holds key, value, key, value...; a sequence its items.
    std::vector<YamlNode> children{};
};

// Parses one document. False with `mark` and `message` set when the text is
// not YAML, holds more than one document, anchors, aliases or tags, or
// nests deeper than the file format ever needs. An empty stream gives an
// empty plain scalar. May throw std::bad_alloc.
bool parse_yaml(std::string_view text, YamlNode* root, TextMark* mark, std::string* message);

// json_tree.cpp: the same tree, without marks, for a text that is one JSON
// object. False when it is not, or when its YAML reading could differ (a
// float, deep nesting): then parse_yaml reads it. May throw std::bad_alloc.
bool parse_json_tree(std::string_view text, YamlNode* root);
