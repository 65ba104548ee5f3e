// The desired-state texts; see the header.

#include "cli/desired_state/render.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <unordered_set>

#include "cli/output/json_writer.h"
#include "cli/preflight/strict_address.h"

namespace {

constexpr std::array<std::string_view, 3> kProxyTypes{"HTTP", "HTTPS", "SOCKS5"};
// Words a plain YAML scalar would read as something other than text.
constexpr std::array<std::string_view, 10> kYamlWords{"true", "false", "null", "yes", "no",
                                                      "on",   "off",   "y",    "n",   "~"};

// The code point at text[i] and its length in bytes; a byte that does not
// start well-formed UTF-8 is its own value with length 1 and `valid` false.
size_t next_code_point(std::string_view text, size_t i, uint32_t* code_point, bool* valid) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    *valid = i + length <= text.size() && is_utf8(text.substr(i, length));
    if (!*valid) {
        *code_point = lead;
        return 1;
    }
    uint32_t value = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length; k++) {
        value = (value << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    *code_point = value;
    return length;
}

// Characters that could forge lines or drive a terminal: C0, DEL, C1 and
// the bidirectional overrides.
bool is_dangerous(uint32_t code_point) {
    return code_point < 0x20 || (code_point >= 0x7F && code_point <= 0x9F) ||
           (code_point >= 0x202A && code_point <= 0x202E) ||
           (code_point >= 0x2066 && code_point <= 0x2069);
}

void append_escape(std::string& out, uint32_t code_point) {
    char escaped[16];
    snprintf(escaped, sizeof escaped, code_point < 0x100 ? "\\x%02x" : "\\u%04x", code_point);
    out += escaped;
}

// Whether every byte is printable ASCII (0x20-0x7E), eight at a time: a
// byte below 0x20 sets its top bit in (x - 0x20..) & ~x, one above 0x7E in
// (x + 0x01..) | x. A carry or borrow across bytes starts only at a byte
// that fails by itself, so the answer stays exact. The last eight bytes
// are read again rather than a short tail copied.
bool printable_ascii(std::string_view text) {
    constexpr uint64_t kOnes = 0x0101010101010101ull;
    if (text.size() < 8) {
        return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
    }
    uint64_t failed = 0;
    for (size_t i = 0; i < text.size(); i += 8) {
        uint64_t x;
        memcpy(&x, text.data() + std::min(i, text.size() - 8), 8);
        failed |= ((x - 0x20 * kOnes) & ~x) | ((x + kOnes) | x);
    }
    return (failed & 0x80 * kOnes) == 0;
}

// Agent text for a terminal, appended to `out`: dangerous characters and
// bytes that are not UTF-8 as \xNN or \uNNNN, the rest as it is.
void append_for_terminal(std::string_view text, std::string* out) {
    if (printable_ascii(text)) {
        *out += text;  // printable ASCII, the common case, as it is
        return;
    }
    for (size_t i = 0; i < text.size();) {
        uint32_t code_point = 0;
        bool valid = false;
        size_t length = next_code_point(text, i, &code_point, &valid);
        if (!valid || is_dangerous(code_point)) {
            append_escape(*out, code_point);
        } else {
            out->append(text.substr(i, length));
        }
        i += length;
    }
}

std::string terminal_safe(std::string_view text) {
    std::string out;
    append_for_terminal(text, &out);
    return out;
}

// Text as a YAML scalar: plain when it reads back as the same text
// (a word, or an ip_address:port), else double-quoted with escapes.
std::string yaml_scalar(std::string_view text) {
    auto word_char = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '-' || c == '.';
    };
    std::string lower(text);
    for (char& c : lower) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    }
    const bool word = !text.empty() && !(text[0] >= '0' && text[0] <= '9') && text[0] != '-' &&
                      text[0] != '.' && std::all_of(text.begin(), text.end(), word_char) &&
                      std::find(kYamlWords.begin(), kYamlWords.end(), lower) == kYamlWords.end();
    if (word || parse_strict_endpoint(text, nullptr) == EndpointError::none) {
        return std::string(text);
    }
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        uint32_t code_point = 0;
        bool valid = false;
        size_t length = next_code_point(text, i, &code_point, &valid);
        if (!valid) {
            out += "\\uFFFD";  // what the listing's reader makes of such bytes
        } else if (code_point == '"' || code_point == '\\') {
            out += '\\';
            out += static_cast<char>(code_point);
        } else if (is_dangerous(code_point)) {
            append_escape(out, code_point);
        } else {
            out.append(text.substr(i, length));
        }
        i += length;
    }
    return out + "\"";
}

// "target A, virtual_port N, enabled true, status S": the fields set.
std::string describe(const ChangeState& state) {
    std::string out;
    auto add = [&out](const char* name, const std::string& value) {
        out += (out.empty() ? "" : ", ") + std::string(name) + " " + value;
    };
    if (state.target)
        add("target", terminal_safe(*state.target));
    if (state.virtual_port)
        add("virtual_port", std::to_string(*state.virtual_port));
    if (state.address)
        add("address", terminal_safe(*state.address));
    if (state.type)
        add("type", terminal_safe(*state.type));
    if (state.enabled)
        add("enabled", *state.enabled ? "true" : "false");
    if (state.status)
        add("status", terminal_safe(*state.status));
    return out;
}

// "target A -> B, virtual_port 1 -> 2": the fields an update changes.
std::string describe_update(const Change& change) {
    const ChangeState none;
    const ChangeState& before = change.before ? *change.before : none;
    const ChangeState& after = *change.after;
    std::string out;
    auto add = [&out](const char* name, const std::string& from, const std::string& to) {
        out += (out.empty() ? "" : ", ") + std::string(name) + " " + from + " -> " + to;
    };
    if (after.target)
        add("target", terminal_safe(before.target.value_or("?")), *after.target);
    if (after.virtual_port) {
        add("virtual_port", before.virtual_port ? std::to_string(*before.virtual_port) : "?",
            std::to_string(*after.virtual_port));
    }
    if (after.address)
        add("address", terminal_safe(before.address.value_or("?")), *after.address);
    if (after.type)
        add("type", terminal_safe(before.type.value_or("?")), *after.type);
    return out;
}

// "(was disconnected)", "(new)": what an enable or disable starts from.
std::string describe_toggle(const Change& change) {
    if (!change.before) {
        return "(not read)";
    }
    if (change.before->status) {
        return "(was " + terminal_safe(*change.before->status) + ")";
    }
    if (change.object == ChangeObject::proxy) {
        return *change.before->enabled ? "(was enabled)" : "(was disabled)";
    }
    return "(new)";
}

std::string change_line(const Change& change) {
    const std::string subject =
        change.object == ChangeObject::proxy ? "proxy" : "service " + terminal_safe(change.service);
    switch (change.action) {
        case ChangeAction::create:
            return "+ create " + subject + ": " + describe(*change.after);
        case ChangeAction::update:
            return "~ update " + subject + ": " + describe_update(change);
        case ChangeAction::enable:
        case ChangeAction::disable:
            return "~ " + std::string(change_action_name(change.action)) + " " + subject + " " +
                   describe_toggle(change);
        case ChangeAction::remove:
            return "- remove " + subject + ": " + describe(*change.before);
        case ChangeAction::unchanged:
            return "  unchanged " + subject;
        default:
            return "  not managed " + subject + ": " + describe(*change.before);
    }
}

std::string summary_line(const PlanSummary& summary) {
    auto count = [&summary](ChangeAction action) { return std::to_string(summary.of(action)); };
    const std::string kept = count(ChangeAction::unchanged) + " unchanged, " +
                             count(ChangeAction::not_managed) + " not managed";
    if (!summary.pending()) {
        return "No changes: the agent matches the file (" + kept + ").";
    }
    return "Plan: " + count(ChangeAction::create) + " to create, " + count(ChangeAction::update) +
           " to update, " + count(ChangeAction::enable) + " to enable, " +
           count(ChangeAction::disable) + " to disable, " + count(ChangeAction::remove) +
           " to remove; " + kept + ".";
}

// A ChangeState as JSON, or "null".
std::string state_json(const std::optional<ChangeState>& state) {
    if (!state) {
        return "null";
    }
    JsonWriter json;
    if (state->target)
        json.text("target", state->target->c_str());
    if (state->virtual_port)
        json.number("virtual_port", *state->virtual_port);
    if (state->address)
        json.text("address", state->address->c_str());
    if (state->type)
        json.text("type", state->type->c_str());
    if (state->enabled)
        json.boolean("enabled", *state->enabled);
    if (state->status)
        json.text("status", state->status->c_str());
    return json.object();
}

// The enabled value an export writes for a status: none when the status
// says neither (an error, say), so that the service is left as it is.
std::optional<bool> exported_enabled(const std::string& status) {
    if (status == "connected" || status == "in progress") {
        return true;
    }
    return status == "disconnected" ? std::optional<bool>(false) : std::nullopt;
}

// The services an export writes: the first of each name, in listing order.
std::vector<const AgentService*> exported_services(const AgentSnapshot& agent) {
    std::unordered_set<std::string_view> seen;
    std::vector<const AgentService*> services;
    for (const AgentService& service : agent.services) {
        if (seen.insert(service.name).second) {
            services.push_back(&service);
        }
    }
    return services;
}

// The agent's proxy when it is configured: a strict address and a known type.
const AgentProxy* exported_proxy(const AgentSnapshot& agent) {
    if (!agent.proxy) {
        return nullptr;
    }
    std::string type = agent.proxy->type;
    for (char& c : type) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
    }
    const std::string address = agent.proxy->ip_address + ":" + std::to_string(agent.proxy->port);
    const bool known = std::find(kProxyTypes.begin(), kProxyTypes.end(), type) != kProxyTypes.end();
    return known && parse_strict_endpoint(address, nullptr) == EndpointError::none ? &*agent.proxy
                                                                                   : nullptr;
}

template <typename Build>
std::string without_throwing(Build build) noexcept {
    try {
        return build();
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

constexpr std::string_view kUnchanged = "  unchanged service ";

// "  unchanged service NAME": most lines of a large plan, so no temporaries.
void add_unchanged_line(std::string_view name, std::string* out) {
    out->append(kUnchanged);
    append_for_terminal(name, out);
    *out += '\n';
}

// The unchanged names' lines. When every name is printable ASCII (the
// common case) their room is made at once and each line copied into it,
// not appended piece by piece.
void add_unchanged_lines(const std::vector<std::string_view>& names, std::string* out) {
    size_t room = 0;
    for (std::string_view name : names) {
        if (!printable_ascii(name)) {
            for (std::string_view each : names) {
                add_unchanged_line(each, out);
            }
            return;
        }
        room += kUnchanged.size() + name.size() + 1;
    }
    size_t at = out->size();
    out->resize(at + room);
    char* line = out->data() + at;
    for (std::string_view name : names) {
        memcpy(line, kUnchanged.data(), kUnchanged.size());
        memcpy(line + kUnchanged.size(), name.data(), name.size());
        line += kUnchanged.size() + name.size();
        *line++ = '\n';
    }
}

// Room for the unchanged names' lines (as printable ASCII) and some more:
// one allocation instead of a doubling string that touches twice the pages.
size_t room_for(const Plan& plan) {
    size_t room = 256 + 128 * plan.changes.size();
    for (std::string_view name : plan.unchanged_names) {
        room += kUnchanged.size() + name.size() + 1;
    }
    return room;
}

}  // namespace

// The plan's unchanged_names go where their changes would stand: before the
// first unchanged or not managed change left (the proxy's, the agent's).
std::string render_plan_text(const Plan& plan) {
    return without_throwing([&] {
        std::string out;
        out.reserve(room_for(plan));
        bool names_written = plan.unchanged_names.empty();
        for (const Change& change : plan.changes) {
            const bool kept = change.action == ChangeAction::unchanged ||
                              change.action == ChangeAction::not_managed;
            if (kept && !names_written) {
                add_unchanged_lines(plan.unchanged_names, &out);
                names_written = true;
            }
            if (change.action == ChangeAction::unchanged &&
                change.object == ChangeObject::service) {
                add_unchanged_line(change.service, &out);
            } else {
                out += change_line(change);
                out += '\n';
            }
        }
        if (!names_written) {
            add_unchanged_lines(plan.unchanged_names, &out);
        }
        out += summary_line(plan.summary);
        out += '\n';
        return out;
    });
}

std::string render_change_json(const Change& change) {
    return without_throwing([&] {
        JsonWriter json;
        json.text("object", change.object == ChangeObject::proxy ? "proxy" : "service");
        if (change.object == ChangeObject::service) {
            json.text("service", change.service.c_str());
        }
        json.text("action", change_action_name(change.action))
            .value("before", state_json(change.before))
            .value("after", state_json(change.after));
        return json.object();
    });
}

std::string render_summary_json(const PlanSummary& summary) {
    JsonWriter json;
    for (size_t i = 0; i < CHANGE_ACTION_COUNT; i++) {
        json.number(change_action_name(static_cast<ChangeAction>(i)), summary.counts[i]);
    }
    return json.object();
}

std::string render_plan_json(const Plan& plan) {
    return without_throwing([&] {
        std::vector<std::string> changes;
        changes.reserve(plan.changes.size());
        for (const Change& change : plan.changes) {
            changes.push_back(render_change_json(change));
            if (changes.back().empty()) {
                return std::string();  // out of memory: no document with a hole
            }
        }
        return JsonWriter()
            .number("version", 1)
            .boolean("ok", true)
            .boolean("pending", plan.summary.pending())
            .value("changes", json_array(changes.data(), changes.size()))
            .value("summary", render_summary_json(plan.summary))
            .object();
    });
}

std::string render_state_yaml(const AgentSnapshot& agent) {
    return without_throwing([&] {
        std::string out =
            "# The agent's services and proxy as a desired-state file. Clear services and\n"
            "# API keys cannot be read back from the agent, so they are not here.\n"
            "version: 1\n";
        std::vector<const AgentService*> services = exported_services(agent);
        out += services.empty() ? "services: {}\n" : "services:\n";
        for (const AgentService* service : services) {
            out += "  " + yaml_scalar(service->name) + ":\n";
            out += "    target: " +
                   yaml_scalar(service->ip_address + ":" + std::to_string(service->port)) + "\n";
            out += "    virtual_port: " + std::to_string(service->virtual_port) + "\n";
            if (std::optional<bool> enabled = exported_enabled(service->status)) {
                out += std::string("    enabled: ") + (*enabled ? "true" : "false") + "\n";
            }
        }
        if (const AgentProxy* proxy = exported_proxy(agent)) {
            out += "proxy:\n    address: " +
                   yaml_scalar(proxy->ip_address + ":" + std::to_string(proxy->port)) +
                   "\n    type: " + yaml_scalar(proxy->type) +
                   "\n    enabled: " + (proxy->enabled ? "true" : "false") + "\n";
        } else if (agent.proxy) {
            out += "# proxy: not configured on the agent\n";
        }
        return out;
    });
}

std::string render_state_json(const AgentSnapshot& agent) {
    return without_throwing([&] {
        JsonWriter services;
        for (const AgentService* service : exported_services(agent)) {
            JsonWriter fields;
            fields
                .text("target", (service->ip_address + ":" + std::to_string(service->port)).c_str())
                .number("virtual_port", service->virtual_port);
            if (std::optional<bool> enabled = exported_enabled(service->status)) {
                fields.boolean("enabled", *enabled);
            }
            services.value(service->name.c_str(), fields.object());
        }
        JsonWriter state;
        state.number("version", 1).value("services", services.object());
        if (const AgentProxy* proxy = exported_proxy(agent)) {
            state.value("proxy",
                        JsonWriter()
                            .text("address",
                                  (proxy->ip_address + ":" + std::to_string(proxy->port)).c_str())
                            .text("type", proxy->type.c_str())
                            .boolean("enabled", proxy->enabled)
                            .object());
        }
        return state.object();
    });
}

std::string render_export_json(const AgentSnapshot& agent) {
    return without_throwing([&] {
        return JsonWriter()
            .number("version", 1)
            .boolean("ok", true)
            .value("state", render_state_json(agent))
            .object();
    });
}
