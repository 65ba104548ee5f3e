// The fast way into a YamlNode tree for files that are JSON: nlohmann's
// SAX parser reads 10,000 services several times faster than libfyaml.
// Marks are not kept: the reader goes through libfyaml again whenever it
// must say where something is wrong.

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "cli/desired_state/yaml_tree.h"

namespace {

// The same nesting limit as the YAML reading: the file format needs four.
constexpr size_t kMaxDepth = 8;

// Builds the tree as the events come; refuses (returns false on) anything
// whose YAML reading could differ: a float, a nesting past the limit.
class TreeBuilder : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit TreeBuilder(YamlNode* root) : root_(root) {}

    bool null() override { return scalar("null", true); }
    bool boolean(bool value) override { return scalar(value ? "true" : "false", true); }
    bool number_integer(number_integer_t value) override {
        return scalar(std::to_string(value), true);
    }
    bool number_unsigned(number_unsigned_t value) override {
        return scalar(std::to_string(value), true);
    }
    bool number_float(number_float_t, const string_t&) override { return false; }
    bool string(string_t& value) override { return scalar(std::move(value), false); }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override { return open(YamlNode::Kind::mapping); }
    bool key(string_t& value) override { return scalar(std::move(value), false); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(YamlNode::Kind::sequence); }
    bool end_array() override { return close(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

private:
    YamlNode* root_;
    std::vector<YamlNode*> open_;  // the mappings and sequences being filled
    bool has_root_ = false;

    // Where the next node goes: into the innermost open node, or the root.
    YamlNode* place(YamlNode node) {
        if (open_.empty()) {
            *root_ = std::move(node);
            has_root_ = true;
            return root_;
        }
        open_.back()->children.push_back(std::move(node));
        return &open_.back()->children.back();
    }
    bool scalar(std::string text, bool plain) {
        place(YamlNode{.kind = YamlNode::Kind::scalar, .text = std::move(text), .plain = plain});
        return true;
    }
    bool open(YamlNode::Kind kind) {
        if (open_.size() == kMaxDepth) {
            return false;
        }
        open_.push_back(place(YamlNode{.kind = kind}));
        return true;
    }
    bool close() {
        open_.pop_back();
        return true;
    }
};

}  // namespace

// Children are pushed only into the innermost open node, whose own place in
// its parent does not move while it is open.
bool parse_json_tree(std::string_view text, YamlNode* root) {
    const size_t start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos || text[start] != '{') {
        return false;
    }
    TreeBuilder builder(root);
    return nlohmann::json::sax_parse(text.begin(), text.end(), &builder,
                                     nlohmann::json::input_format_t::json, true);
}
