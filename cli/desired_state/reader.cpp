// The desired-state reader: a YAML tree checked field by field into a
// DesiredState. The first refusal ends the reading; it names the place in
// the file and what is wrong.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_map>

#include "cli/desired_state/desired_state.h"
#include "cli/desired_state/quick_reader.h"
#include "cli/desired_state/yaml_tree.h"
#include "cli/preflight/strict_address.h"

namespace {

// Larger files are refused unread: 10,000 services take about 1 MiB.
constexpr size_t kMaxFileSize = 16 * 1024 * 1024;
// Longer texts are cut in messages.
constexpr size_t kMaxQuoted = 60;

constexpr std::array<std::string_view, 3> kRootKeys{"version", "services", "proxy"};
constexpr std::array<std::string_view, 4> kServiceKeys{"target", "virtual_port", "clear_services",
                                                       "enabled"};
constexpr std::array<std::string_view, 3> kProxyKeys{"address", "type", "enabled"};
// Proxy types as the file may write them (any case) and as they are sent.
constexpr std::array<std::string_view, 3> kProxyTypes{"HTTP", "HTTPS", "SOCKS5"};
// Parts of a key's name that say it holds a secret.
constexpr std::array<std::string_view, 4> kSecretWords{"key", "secret", "password", "token"};

// A refusal on its way to read_desired_state, the only place that catches it.
struct Refusal {
    TextMark mark;
    std::string message;
};

[[noreturn]] void refuse(const YamlNode& at, std::string message) {
    throw Refusal{at.mark, std::move(message)};
}

std::string lower_case(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return lower;
}

std::string upper_case(std::string_view text) {
    std::string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return upper;
}

// `text` in double quotes for a message, control bytes, quotes and
// backslashes as \xNN, cut after kMaxQuoted bytes.
std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (char c : text.substr(0, kMaxQuoted)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f || c == '"' || c == '\\') {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + (text.size() > kMaxQuoted ? "...\"" : "\"");
}

// What a node is, for "got ..." in messages.
std::string described(const YamlNode& node) {
    switch (node.kind) {
        case YamlNode::Kind::mapping:
            return "a mapping";
        case YamlNode::Kind::sequence:
            return "a list";
        default:
            return node.plain && node.text.empty() ? "nothing" : quoted(node.text);
    }
}

// A plain empty, "~" or "null" scalar: YAML's null.
bool is_null(const YamlNode& node) {
    return node.kind == YamlNode::Kind::scalar && node.plain &&
           (node.text.empty() || node.text == "~" || lower_case(node.text) == "null");
}

// Checks a mapping's keys: scalars, none holding a secret, each allowed,
// none twice.
template <size_t N>
void check_keys(const YamlNode& mapping, const std::array<std::string_view, N>& allowed,
                std::string_view where) {
    const auto& children = mapping.children;
    for (size_t i = 0; i < children.size(); i += 2) {
        const YamlNode& key = children[i];
        if (key.kind != YamlNode::Kind::scalar) {
            refuse(key, "keys must be plain words, not " + described(key));
        }
        const std::string lower = lower_case(key.text);
        for (std::string_view word : kSecretWords) {
            if (lower.find(word) != std::string::npos) {
                refuse(key, quoted(key.text) +
                                ": a desired-state file never holds API keys; give the key "
                                "with --api-key-file, SYLVANE_API_KEY or -k");
            }
        }
        if (std::find(allowed.begin(), allowed.end(), key.text) == allowed.end()) {
            std::string expected;
            for (std::string_view name : allowed) {
                expected += (expected.empty() ? "" : ", ") + std::string(name);
            }
            refuse(key, "unknown key " + quoted(key.text) + " in " + std::string(where) +
                            " (expected " + expected + ")");
        }
        for (size_t j = 0; j < i; j += 2) {
            if (children[j].text == key.text) {
                refuse(key, "duplicate key " + quoted(key.text) + " (first on line " +
                                std::to_string(children[j].mark.line) + ")");
            }
        }
    }
}

// The value of `key` in a checked mapping, or null.
const YamlNode* value_of(const YamlNode& mapping, std::string_view key) {
    for (size_t i = 0; i < mapping.children.size(); i += 2) {
        if (mapping.children[i].text == key) {
            return &mapping.children[i + 1];
        }
    }
    return nullptr;
}

// The value of a key that must be there; refused at `owner` otherwise.
const YamlNode& required(const YamlNode& mapping, std::string_view key, const YamlNode& owner,
                         std::string_view where) {
    const YamlNode* value = value_of(mapping, key);
    if (value == nullptr) {
        refuse(owner, std::string(where) + " has no \"" + std::string(key) + "\"");
    }
    return *value;
}

Endpoint read_endpoint(const YamlNode& node, std::string_view field) {
    const std::string prefix = std::string(field) + ": ";
    if (node.kind != YamlNode::Kind::scalar || is_null(node)) {
        refuse(node, prefix + "expected ip_address:port, for example 127.0.0.1:8080, got " +
                         described(node));
    }
    StrictEndpoint endpoint{};
    switch (parse_strict_endpoint(node.text, &endpoint)) {
        case EndpointError::none:
            return Endpoint{.address = std::string(endpoint.address), .port = endpoint.port};
        case EndpointError::missing_port:
            refuse(node, prefix + quoted(node.text) +
                             " has no port; expected ip_address:port, for example 127.0.0.1:8080");
        case EndpointError::bad_address:
            refuse(node, prefix + quoted(node.text) +
                             ": the address must be four decimal numbers 0-255, as 127.0.0.1");
        default:
            refuse(node, prefix + quoted(node.text) +
                             ": the port must be a decimal number 1-65535 with nothing after it");
    }
}

uint16_t read_port(const YamlNode& node, std::string_view field) {
    uint16_t port = 0;
    if (node.kind != YamlNode::Kind::scalar || !node.plain ||
        !parse_strict_port(node.text, &port)) {
        refuse(node,
               std::string(field) + ": expected a port number 1-65535, got " + described(node));
    }
    return port;
}

// YAML 1.2's booleans; yes, no, on and off are refused, not guessed.
bool read_boolean(const YamlNode& node, std::string_view field) {
    constexpr std::array<std::string_view, 6> kBooleans{"true",  "True",  "TRUE",
                                                        "false", "False", "FALSE"};
    const auto spelling = std::find(kBooleans.begin(), kBooleans.end(), node.text);
    if (node.kind != YamlNode::Kind::scalar || !node.plain || spelling == kBooleans.end()) {
        refuse(node, std::string(field) + ": expected true or false, got " + described(node));
    }
    return spelling - kBooleans.begin() < 3;
}

std::vector<std::string> read_clear_services(const YamlNode& node) {
    if (node.kind != YamlNode::Kind::sequence) {
        refuse(node, "clear_services: expected a list of domain names and IPv4 addresses, got " +
                         described(node));
    }
    std::vector<std::string> services;
    for (const YamlNode& item : node.children) {
        if (item.kind != YamlNode::Kind::scalar || !is_strict_clear_service(item.text)) {
            refuse(item, "clear_services: " + described(item) +
                             " is neither a domain name nor an IPv4 address of four decimal "
                             "numbers 0-255");
        }
        services.push_back(item.text);
    }
    return services;
}

// One service: `name` is its key, `body` its mapping.
DesiredService read_service(const YamlNode& name, const YamlNode& body) {
    const std::string where = "service " + quoted(name.text);
    if (body.kind != YamlNode::Kind::mapping) {
        refuse(body, where + ": expected a mapping with a target, got " + described(body));
    }
    check_keys(body, kServiceKeys, where);
    DesiredService service{
        .name = name.text,
        .target = read_endpoint(required(body, "target", name, where), "target")};
    if (const YamlNode* port = value_of(body, "virtual_port")) {
        service.virtual_port = read_port(*port, "virtual_port");
    }
    if (const YamlNode* clear = value_of(body, "clear_services")) {
        service.clear_services = read_clear_services(*clear);
    }
    if (const YamlNode* enabled = value_of(body, "enabled")) {
        service.enabled = read_boolean(*enabled, "enabled");
    }
    return service;
}

// Names are UTF-8 already: the parser refuses malformed UTF-8 anywhere.
void check_service_name(const YamlNode& name) {
    if (name.kind != YamlNode::Kind::scalar || name.text.empty()) {
        refuse(name, "a service name must be a non-empty text, not " + described(name));
    }
    if (!is_strict_service_name(name.text)) {
        refuse(name, "service name " + quoted(name.text) + " is longer than 255 bytes (" +
                         std::to_string(name.text.size()) + ")");
    }
}

std::vector<DesiredService> read_services(const YamlNode& node) {
    std::vector<DesiredService> services;
    if (is_null(node)) {
        return services;
    }
    if (node.kind != YamlNode::Kind::mapping) {
        refuse(node, "services: expected a mapping of service names to their settings, got " +
                         described(node));
    }
    std::unordered_map<std::string_view, int> first_lines;  // a file may name thousands
    const auto& children = node.children;
    for (size_t i = 0; i < children.size(); i += 2) {
        const YamlNode& name = children[i];
        check_service_name(name);
        auto [first, added] = first_lines.emplace(name.text, name.mark.line);
        if (!added) {
            refuse(name, "duplicate service " + quoted(name.text) + " (first on line " +
                             std::to_string(first->second) + ")");
        }
        services.push_back(read_service(name, children[i + 1]));
    }
    return services;
}

std::optional<DesiredProxy> read_proxy(const YamlNode& node) {
    if (is_null(node)) {
        return std::nullopt;
    }
    if (node.kind != YamlNode::Kind::mapping) {
        refuse(node,
               "proxy: expected a mapping with an address and a type, got " + described(node));
    }
    check_keys(node, kProxyKeys, "proxy");
    DesiredProxy proxy{
        .address = read_endpoint(required(node, "address", node, "proxy"), "proxy address")};
    const YamlNode& type = required(node, "type", node, "proxy");
    proxy.type = type.kind == YamlNode::Kind::scalar ? upper_case(type.text) : "";
    if (std::find(kProxyTypes.begin(), kProxyTypes.end(), proxy.type) == kProxyTypes.end()) {
        refuse(type, "proxy type: expected HTTP, HTTPS or Socks5, got " + described(type));
    }
    if (const YamlNode* enabled = value_of(node, "enabled")) {
        proxy.enabled = read_boolean(*enabled, "proxy enabled");
    }
    return proxy;
}

void check_version(const YamlNode& root) {
    const YamlNode* version = value_of(root, "version");
    if (version == nullptr) {
        refuse(root, "missing \"version: 1\" at the top of the file");
    }
    if (version->kind != YamlNode::Kind::scalar || !version->plain ||
        version->text != std::to_string(DESIRED_STATE_VERSION)) {
        refuse(*version, "version: this tool reads version 1, got " + described(*version));
    }
}

DesiredState read_root(const YamlNode& root) {
    if (root.kind != YamlNode::Kind::mapping) {
        refuse(root, is_null(root)
                         ? "the file is empty; it needs at least \"version: 1\""
                         : "expected a mapping with version and services, got " + described(root));
    }
    check_keys(root, kRootKeys, "the file");
    check_version(root);
    DesiredState state;
    if (const YamlNode* services = value_of(root, "services")) {
        state.services = read_services(*services);
    }
    if (const YamlNode* proxy = value_of(root, "proxy")) {
        state.proxy = read_proxy(*proxy);
    }
    return state;
}

std::string located(std::string_view file, const TextMark& mark, const std::string& message) {
    return std::string(file) + ":" + std::to_string(mark.line) + ":" + std::to_string(mark.column) +
           ": " + message;
}

// A regular file of 1 byte up to the limit, mapped read-only with its pages
// read in by the one call: no copy, and a fault per 16 pages at most rather
// than one per page of a buffer. Null for anything else, which is read.
// The caller unmaps `*size` bytes.
const char* map_file(int fd, size_t* size) {
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0 ||
        static_cast<uint64_t>(status.st_size) > kMaxFileSize) {
        return nullptr;
    }
    *size = static_cast<size_t>(status.st_size);
    void* mapped = mmap(nullptr, *size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    return mapped == MAP_FAILED ? nullptr : static_cast<const char*>(mapped);
}

// Reads all of `fd` into `text`. 0, an errno value, or EFBIG past the limit.
// A regular file's size is reserved first: one allocation, no copies.
int read_all(int fd, std::string* text) {
    struct stat status {};
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<uint64_t>(status.st_size) < kMaxFileSize) {
        text->reserve(static_cast<size_t>(status.st_size) + 1);
    }
    char buffer[65536];
    for (;;) {
        ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return errno;
        }
        if (got == 0) {
            return 0;
        }
        if (text->size() + static_cast<size_t>(got) > kMaxFileSize) {
            return EFBIG;
        }
        text->append(buffer, static_cast<size_t>(got));
    }
}

}  // namespace

std::string Endpoint::text() const {
    return address + ":" + std::to_string(port);
}

bool read_desired_state(std::string_view text, std::string_view file, DesiredState* state,
                        std::string* error) noexcept {
    // The files --export writes, and most written by hand, in one pass;
    // anything else, and every refusal, through the tree.
    try {
        DesiredState quick;
        if (read_desired_state_quickly(text, &quick)) {
            *state = std::move(quick);
            return true;
        }
    } catch (const std::bad_alloc&) {
        *error = std::string(file) + ": out of memory while reading the file";
        return false;
    }
    return read_desired_state_tree(text, file, state, error);
}

bool read_desired_state_tree(std::string_view text, std::string_view file, DesiredState* state,
                             std::string* error) noexcept {
    try {
        YamlNode root;
        // JSON first, the fast way; a refusal is found again through
        // libfyaml below, which knows where it is.
        if (parse_json_tree(text, &root)) {
            try {
                *state = read_root(root);
                return true;
            } catch (const Refusal&) {
                root = YamlNode{};
            }
        }
        TextMark mark;
        std::string message;
        if (!parse_yaml(text, &root, &mark, &message)) {
            *error = located(file, mark, message);
            return false;
        }
        *state = read_root(root);
        return true;
    } catch (const Refusal& refusal) {
        *error = located(file, refusal.mark, refusal.message);
    } catch (const std::bad_alloc&) {
        *error = std::string(file) + ": out of memory while reading the file";
    }
    return false;
}

bool read_desired_state_file(const char* path, DesiredState* state, std::string* error) noexcept {
    const bool standard_input = strcmp(path, "-") == 0;
    const char* file = standard_input ? "<stdin>" : path;
    try {
        int fd = standard_input ? STDIN_FILENO : open(path, O_RDONLY | O_CLOEXEC);
        size_t size = 0;
        const char* mapped = fd < 0 ? nullptr : map_file(fd, &size);
        std::string text;
        int result = fd < 0 ? errno : mapped != nullptr ? 0 : read_all(fd, &text);
        if (fd >= 0 && !standard_input) {
            close(fd);
        }
        if (mapped != nullptr) {
            const bool read = read_desired_state({mapped, size}, file, state, error);
            munmap(const_cast<char*>(mapped), size);
            return read;
        }
        if (result != 0) {
            *error = std::string(file) + ": " +
                     (result == EFBIG ? "larger than 16 MiB; not a desired-state file"
                                      : strerror(result));
            return false;
        }
        return read_desired_state(text, file, state, error);
    } catch (const std::bad_alloc&) {
        *error = std::string(file) + ": out of memory while reading the file";
        return false;
    }
}
