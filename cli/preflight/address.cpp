// Parsing: validation of addresses, ports and clear-service lists typed on
// the command line. Failures are -1 plus one logger line; nothing prints.

#include "cli/preflight/address.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/logger.h"

namespace {

constexpr size_t kMaxLabelLength = 63;
constexpr size_t kMaxDomainLength = 253;

// Next token of a strstr split; see the header. On allocation failure the
// cursor is cleared so that a caller's loop ends.
char* get_next_token(char** holder, const char* delimiter, char** cursor) {
    if (delimiter == nullptr || cursor == nullptr) {
        return nullptr;
    }
    if (*cursor == nullptr && holder == nullptr) {
        return nullptr;
    }
    char* start = *cursor != nullptr ? *cursor : *holder;
    if (start == nullptr) {
        return nullptr;
    }
    // An empty delimiter would match forever at the same place.
    char* match = delimiter[0] != '\0' ? strstr(start, delimiter) : nullptr;
    if (match == nullptr) {
        *cursor = nullptr;
        return strdup(start);
    }
    *match = '\0';
    char* token = strdup(start);
    *cursor = token != nullptr ? match + strlen(delimiter) : nullptr;
    return token;
}

// Parse and reprint: the reprinted address must start the text. The
// destination keeps the reprint even when the text is refused.
int parse_ip_address(const char* text, char* destination) {
    if (text == nullptr) {
        Logger.warn("Unable to parse ip_address because provided string is null");
        return -1;
    }
    signed char octets[4];
    if (sscanf(text, "%hhd.%hhd.%hhd.%hhd", &octets[0], &octets[1], &octets[2], &octets[3]) < 4) {
        Logger.warn("Unable to parse %s ip string", text);
        return -1;
    }
    if (destination == nullptr ||
        snprintf(destination, IPV4_TEXT_SIZE, "%d.%d.%d.%d", static_cast<unsigned char>(octets[0]),
                 static_cast<unsigned char>(octets[1]), static_cast<unsigned char>(octets[2]),
                 static_cast<unsigned char>(octets[3])) <= 0) {
        Logger.error("Could not write ip address to destination buffer");
        return -1;
    }
    if (strncmp(text, destination, strlen(destination)) != 0) {
        Logger.warn("Bad format specified for ip address parsing: %s", text);
        return -1;
    }
    return 0;
}

// First integer of the text, which must be 1..65535.
int parse_port(const char* text, uint16_t* port) {
    // Read wider than int: "%d" overflows silently (4294967377 would be 81).
    long value = 0;
    if (text == nullptr || sscanf(text, "%ld", &value) != 1) {
        Logger.warn("Unable to convert %s port string", text != nullptr ? text : "(null)");
        return -1;
    }
    if (value < 1 || value >= 65536 || port == nullptr) {
        Logger.warn("Bad port value in provided string: %s", text);
        return -1;
    }
    *port = static_cast<uint16_t>(value);
    return 0;
}

// "ip:port" split at the first ":"; the whole rest goes to parse_port, so
// 1.2.3.4:80:90 gives 80. A text without ":" has no port and fails there.
int parse_ip_address_and_port(const char* text, char* destination, uint16_t* port) {
    if (text == nullptr) {
        Logger.warn("Unable to parse ip_address:port because provided string is null");
        return -1;
    }
    char* copy = strdup(text);
    char* holder = copy;
    char* cursor = nullptr;
    char* address = copy != nullptr ? get_next_token(&holder, ":", &cursor) : nullptr;
    int result = -1;
    if (address == nullptr) {
        Logger.error("Could not copy ip_address:port string");
    } else if (parse_ip_address(address, destination) == 0) {
        result = parse_port(cursor, port);
    }
    free(address);
    free(copy);
    return result;
}

// Runs check(token) on each token of a copy of `text` split on `delimiter`,
// in order, stopping at the first non-zero result. 0, or -1 (a refused
// token or an allocation failure).
template <typename Check>
int for_each_token(const char* text, const char* delimiter, Check check) {
    char* copy = strdup(text);
    char* holder = copy;
    char** first = &holder;
    char* cursor = nullptr;
    int result = copy != nullptr ? 0 : -1;
    while (result == 0) {
        char* token = get_next_token(first, delimiter, &cursor);
        first = nullptr;
        result = token != nullptr && check(token) == 0 ? 0 : -1;
        free(token);
        if (cursor == nullptr) {
            break;
        }
    }
    free(copy);
    return result;
}

// 1..63 characters of [A-Za-z0-9-], no "-" at either end.
int is_valid_domain_label(const char* text) {
    if (text == nullptr) {
        return -1;
    }
    size_t length = strlen(text);
    if (length == 0 || length > kMaxLabelLength || text[0] == '-' || text[length - 1] == '-') {
        return -1;
    }
    for (size_t i = 0; i < length; ++i) {
        char c = text[i];
        bool allowed =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        if (!allowed) {
            return -1;
        }
    }
    return 0;
}

// 1..253 characters; every "."-separated label valid (so no empty label).
int is_valid_domain_name(const char* text) {
    if (text == nullptr) {
        return -1;
    }
    size_t length = strlen(text);
    if (length == 0 || length > kMaxDomainLength) {
        return -1;
    }
    return for_each_token(text, ".",
                          [](const char* label) { return is_valid_domain_label(label); });
}

// Appends a malloc'd copy of text to list. 0 or -1.
int append_copy(List* list, const char* text) {
    char* entry = strdup(text);
    if (entry == nullptr || LinkedList.add(list, entry) == nullptr) {
        free(entry);
        Logger.error("Could not add clear service %s to the list", text);
        return -1;
    }
    return 0;
}

// Checks one clear service and appends it: the canonical address when the
// address parse wrote one, else the token as typed.
int add_clear_service(const char* token, List* list) {
    char address[IPV4_TEXT_SIZE] = {};
    if (parse_ip_address(token, address) != 0 && is_valid_domain_name(token) != 0) {
        Logger.error("Clear service %s bad formatted", token);
        return -1;
    }
    return append_copy(list, address[0] != '\0' ? address : token);
}

// Comma-separated services appended in order; on failure the entries
// already appended stay in the list.
int parse_clear_services(const char* text, List* list) {
    if (text == nullptr) {
        Logger.warn("Unable to parse clear services because provided string is null");
        return -1;
    }
    if (list == nullptr) {
        Logger.warn("Unable to parse clear services because provided list is null");
        return -1;
    }
    return for_each_token(text, ",",
                          [list](const char* token) { return add_clear_service(token, list); });
}

// Digits and dots only, four numbers each 0..255.
int is_valid_ipv4_format(const char* text) {
    if (text == nullptr) {
        Logger.error("Could not validate ip address format because ip address is NULL");
        return -1;
    }
    int octets[4];
    if (sscanf(text, "%d.%d.%d.%d", &octets[0], &octets[1], &octets[2], &octets[3]) != 4 ||
        strspn(text, "0123456789.") != strlen(text)) {
        return -1;
    }
    for (int octet : octets) {
        if (octet < 0 || octet > 255) {
            return -1;
        }
    }
    return 0;
}

void to_upper_case(char* text) {
    for (char* c = text; c != nullptr && *c != '\0'; ++c) {
        *c = static_cast<char>(toupper(static_cast<unsigned char>(*c)));
    }
}

}  // namespace

const ParsingModule Parsing = {
    .get_next_token = get_next_token,
    .parse_ip_address = parse_ip_address,
    .parse_port = parse_port,
    .parse_ip_address_and_port = parse_ip_address_and_port,
    .parse_clear_services = parse_clear_services,
    .is_valid_ipv4_format = is_valid_ipv4_format,
    .is_valid_domain_label = is_valid_domain_label,
    .is_valid_domain_name = is_valid_domain_name,
    .to_upper_case = to_upper_case,
};
