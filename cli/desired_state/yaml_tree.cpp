// Builds a YamlNode tree from libfyaml's parser events: the events carry a
// mark for every node (the document API of this libfyaml has none for
// mappings), and the reader checks duplicate keys itself to name both.

#include "cli/desired_state/yaml_tree.h"

#include <libfyaml.h>

#include <memory>

namespace {

// Mappings and sequences deeper than this are refused: the file format
// nests three levels, and the tree is walked recursively.
constexpr size_t kMaxDepth = 8;

struct DiagDeleter {
    void operator()(fy_diag* diag) const { fy_diag_destroy(diag); }
};
struct ParserDeleter {
    void operator()(fy_parser* parser) const { fy_parser_destroy(parser); }
};

// One event, returned to its parser when it goes out of scope.
class Event {
public:
    explicit Event(fy_parser* parser) : parser_(parser), event_(fy_parser_parse(parser)) {}
    ~Event() { fy_parser_event_free(parser_, event_); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    fy_event* get() const { return event_; }

private:
    fy_parser* parser_;
    fy_event* event_;
};

// Where an event starts; `last` for an event without a place of its own
// (an empty value: its key is the place to look).
TextMark mark_of(fy_event* event, TextMark last) {
    const fy_mark* mark = fy_event_start_mark(event);
    return mark != nullptr ? TextMark{mark->line + 1, mark->column + 1} : last;
}

// Why a node event is refused (an anchor or a tag), or null.
const char* anchor_or_tag(fy_event* event) {
    if (fy_event_get_anchor_token(event) != nullptr) {
        return "anchors are not supported";
    }
    return fy_event_get_tag_token(event) != nullptr ? "tags are not supported" : nullptr;
}

YamlNode scalar_node(fy_event* event, TextMark mark) {
    YamlNode node{.kind = YamlNode::Kind::scalar, .mark = mark};
    size_t length = 0;
    const char* text = fy_token_get_text(event->scalar.value, &length);
    node.text.assign(text != nullptr ? text : "", text != nullptr ? length : 0);
    node.plain = fy_token_scalar_style(event->scalar.value) == FYSS_PLAIN;
    return node;
}

// The first error libfyaml collected, or a general one.
void parser_error(fy_diag* diag, TextMark* mark, std::string* message) {
    void* iterator = nullptr;
    fy_diag_error* error = fy_diag_errors_iterate(diag, &iterator);
    if (error != nullptr) {
        *mark = TextMark{error->line > 0 ? error->line : 1, error->column > 0 ? error->column : 1};
        *message = error->msg != nullptr ? error->msg : "not valid YAML";
    } else {
        *message = "not valid YAML";
    }
}

// Receives the events of one stream; `open` holds the mappings and
// sequences being read, innermost last.
class TreeBuilder {
public:
    // Takes one event. False with mark and message set on a refusal.
    bool take(fy_event* event, TextMark* mark, std::string* message) {
        last_ = mark_of(event, last_);
        const char* refusal = nullptr;
        switch (event->type) {
            case FYET_DOCUMENT_START:
                if (++documents_ > 1) {
                    refusal = "only one document is read; remove the second";
                }
                break;
            case FYET_ALIAS:
                refusal = "aliases are not supported";
                break;
            case FYET_SCALAR:
            case FYET_MAPPING_START:
            case FYET_SEQUENCE_START:
                refusal = anchor_or_tag(event);
                if (refusal != nullptr) {
                    break;
                }
                if (event->type == FYET_SCALAR) {
                    add(scalar_node(event, last_));
                } else if (open_.size() == kMaxDepth) {
                    refusal = "nested too deep for a desired-state file";
                } else {
                    open_.push_back(YamlNode{.kind = event->type == FYET_MAPPING_START
                                                         ? YamlNode::Kind::mapping
                                                         : YamlNode::Kind::sequence,
                                             .mark = last_});
                }
                break;
            case FYET_MAPPING_END:
            case FYET_SEQUENCE_END: {
                YamlNode done = std::move(open_.back());
                open_.pop_back();
                add(std::move(done));
                break;
            }
            default:
                break;
        }
        if (refusal != nullptr) {
            *mark = last_;
            *message = refusal;
            return false;
        }
        return true;
    }

    // The document's root; an empty plain scalar for an empty stream.
    YamlNode root() { return has_root_ ? std::move(root_) : YamlNode{.plain = true}; }

private:
    void add(YamlNode node) {
        if (open_.empty()) {
            root_ = std::move(node);
            has_root_ = true;
        } else {
            open_.back().children.push_back(std::move(node));
        }
    }

    std::vector<YamlNode> open_;
    YamlNode root_;
    bool has_root_ = false;
    int documents_ = 0;
    TextMark last_;  // where the latest event with a place started
};

}  // namespace

bool parse_yaml(std::string_view text, YamlNode* root, TextMark* mark, std::string* message) {
    fy_diag_cfg diag_config;
    fy_diag_cfg_default(&diag_config);
    diag_config.fp = nullptr;
    diag_config.level = FYET_ERROR;
    std::unique_ptr<fy_diag, DiagDeleter> diag(fy_diag_create(&diag_config));
    if (diag == nullptr) {
        throw std::bad_alloc();
    }
    fy_diag_set_collect_errors(diag.get(), true);
    // JSON input is read as YAML 1.2 too, whatever the file is called.
    fy_parse_cfg config{.search_path = nullptr,
                        .flags = static_cast<fy_parse_cfg_flags>(
                            FYPCF_QUIET | FYPCF_DEFAULT_VERSION_1_2 | FYPCF_JSON_NONE),
                        .userdata = nullptr,
                        .diag = diag.get()};
    std::unique_ptr<fy_parser, ParserDeleter> parser(fy_parser_create(&config));
    if (parser == nullptr ||
        fy_parser_set_string(parser.get(), text.empty() ? "" : text.data(), text.size()) != 0) {
        throw std::bad_alloc();
    }
    TreeBuilder builder;
    for (;;) {
        Event event(parser.get());
        if (event.get() == nullptr) {
            break;
        }
        if (!builder.take(event.get(), mark, message)) {
            return false;
        }
    }
    if (fy_parser_get_stream_error(parser.get())) {
        parser_error(diag.get(), mark, message);
        return false;
    }
    *root = builder.root();
    return true;
}
