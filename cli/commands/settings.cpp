// The Transfer Agent's settings: the proxy (-g, -c/-t, --enableProxy,
// --disableProxy), the authentication audit and the traceability log.

#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/agent/tenants.h"
#include "cli/commands/families.h"
#include "cli/commands/requests.h"
#include "cli/commands/run.h"
#include "cli/preflight/address.h"
#include "cli/preflight/argument_texts.h"

namespace {

constexpr size_t REASON_LIMIT = 99;

// Texts of one of save_proxy, set_proxy, the audit and the traceability.
struct SettingTexts {
    const char* success;
    const char* failure_with_reason;  // then the reason
    const char* generic_failure;
};

constexpr SettingTexts SAVE_PROXY_TEXTS = {
    "Proxy configuration successfully saved.\n",
    "Failed to save proxy configuration: ",
    "An error occurred while trying to save proxy configuration.\n",
};

constexpr SettingTexts SET_PROXY_TEXTS = {
    "Enabled/Disabled proxy successfully.\n",
    "Failed to set proxy: ",
    "An error occurred while trying to set proxy.\n",
};

constexpr SettingTexts AUDIT_TEXTS = {
    "Authentication status updated successfully\n",
    "Failed to update authentication status: ",
    "An error occurred while trying to update authentication status.\n",
};

constexpr SettingTexts TRACEABILITY_TEXTS = {
    "Traceability configuration successfully saved.\n",
    "Failed to save traceability configuration: ",
    "An error occurred while trying to save traceability configuration.\n",
};

// {"success": bool, "reason": text}.
Outcome setting_outcome(const JsonValue* data, const SettingTexts& texts) {
    int success = data != nullptr ? json_get_bool_value(data, "success") : -1;
    if (success < 0) {
        return Outcome::fail(Failure::bad_answer, texts.generic_failure);
    }
    if (success == 1) {
        return Outcome::success(texts.success);
    }
    std::optional<std::string> reason = read_text(data, "reason");
    if (!reason) {
        return Outcome::fail(Failure::refused, texts.generic_failure);
    }
    Message text(texts.failure_with_reason);
    text.quote(*reason, REASON_LIMIT).say("\n");
    return Outcome::fail(Failure::refused, text, JsonWriter().text("reason", reason->c_str()));
}

[[noreturn]] void bad_argument(const char* text) {
    finish(Outcome::fail(Failure::bad_argument, text));
}

// strtol of the whole text, base 10; false when anything follows the number.
bool parse_whole_number(const char* text, int32_t* value) {
    char* end = nullptr;
    *value = static_cast<int32_t>(strtol(text, &end, 10));
    return *end == '\0';
}

int switched_on = 1;
int switched_off = 0;
ProxyRequest proxy_request{};
TraceabilityConfig traceability{};
ProxySettings proxy_settings{};

}  // namespace

// Fills `proxy` from a get_proxy answer. Null when all was read, else the
// human text of the first field that could not be.
const char* read_proxy_settings(const JsonValue* data, ProxySettings* proxy) {
    if (data == nullptr) {
        return "An error occurred while trying to get proxy configuration.\n";
    }
    std::optional<std::string> type = read_text(data, "type");
    if (!type) {
        return "Unable to retrieve proxy type.\n";
    }
    std::optional<std::string> ip_address = read_text(data, "ip_address");
    if (!ip_address) {
        return "Unable to retrieve proxy IP address.\n";
    }
    int enabled = json_get_bool_value(data, "enabled");
    if (enabled < 0) {
        return "Unable to retrieve proxy status.\n";
    }
    proxy->port = json_get_int_value(data, "port");
    if (proxy->port < 0) {
        return "Unable to retrieve proxy port.\n";
    }
    proxy->type = *type;
    proxy->ip_address = *ip_address;
    proxy->enabled = enabled == 1;
    return nullptr;
}

void* prepare_switch_on(const Invocation&) {
    return &switched_on;
}

void* prepare_switch_off(const Invocation&) {
    return &switched_off;
}

// The Transfer Agent knows the types in capitals only ("SOCKS5").
void* prepare_save_proxy(const Invocation& in) {
    char ip_address[IPV4_TEXT_SIZE] = {};
    if (Parsing.parse_ip_address_and_port(in.address, ip_address, &proxy_request.port) != 0) {
        bad_argument(BAD_C_MESSAGE);
    }
    const char* type = in.proxy_type;
    if (strcmp(type, "HTTP") != 0 && strcmp(type, "HTTPS") != 0 && strcmp(type, "Socks5") != 0) {
        bad_argument(BAD_T_MESSAGE);
    }
    snprintf(proxy_request.ip_address, sizeof proxy_request.ip_address, "%s", ip_address);
    snprintf(proxy_request.proxy_type, sizeof proxy_request.proxy_type, "%s", type);
    Parsing.to_upper_case(proxy_request.proxy_type);
    return &proxy_request;
}

// "file" takes a folder, a name format and a size; "syslog" an address, a
// port and a protocol; "console" nothing.
void* prepare_traceability(const Invocation& in) {
    traceability.target = in.traceability_target;
    if (strcmp(in.traceability_target, "file") == 0) {
        traceability.path = in.words[0];
        traceability.filename_format = in.words[1];
        if (!parse_whole_number(in.words[2], &traceability.max_size)) {
            bad_argument(BAD_FILE_SIZE_MESSAGE);
        }
    } else if (strcmp(in.traceability_target, "syslog") == 0) {
        traceability.address = in.words[0];
        traceability.protocol = in.words[2];
        if (!parse_whole_number(in.words[1], &traceability.port)) {
            bad_argument(BAD_SYSLOG_PORT_MESSAGE);
        }
    }
    return &traceability;
}

void get_proxy_answer(JsonValue* data) {
    const char* fault = read_proxy_settings(data, &proxy_settings);
    if (fault != nullptr) {
        finish(Outcome::fail(Failure::bad_answer, fault));
    }
    Outcome shown;
    shown.proxy = &proxy_settings;
    finish(shown);
}

void set_proxy_answer(JsonValue* data) {
    finish(setting_outcome(data, SET_PROXY_TEXTS));
}

void save_proxy_answer(JsonValue* data) {
    finish(setting_outcome(data, SAVE_PROXY_TEXTS));
}

// The human interface does not read the answer and ends with status 1 even
// so: scripts that drive the audit rely on this status. JSON reads
// "success" like the other settings.
void audit_answer(JsonValue* data) {
    Outcome outcome = setting_outcome(data, AUDIT_TEXTS);
    outcome.human = HumanException{AUDIT_TEXTS.success, {}, 1};
    finish(outcome);
}

void traceability_answer(JsonValue* data) {
    finish(setting_outcome(data, TRACEABILITY_TEXTS));
}
