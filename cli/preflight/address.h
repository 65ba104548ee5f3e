// Parsing: validation of what the user typed before anything is sent: IPv4
// addresses, ports, "ip_address:port" and clear-service lists. Nothing here
// prints to the user; failures are -1 and one logger line, and the front end
// prints its own message.
//
// The IPv4 check is a parse-and-reprint comparison: "%hhd.%hhd.%hhd.%hhd",
// reprinted with "%d.%d.%d.%d" (bytes taken unsigned), must equal the start
// of the text. So 300.1.1.1, -1.0.0.0 and 010.0.0.1 fail while 1.2.3.4x
// passes as 1.2.3.4. Ports come from "%d" (80abc is 80) and must be 1..65535.
#pragma once

#include <cstdint>

#include "core/linked_list.h"

constexpr int IPV4_TEXT_SIZE = 16;

struct ParsingModule {
    // strstr-based splitter that writes NULs into its source. First call:
    // *holder points at the text and *cursor is null; later calls pass a null
    // holder. Returns a malloc'd token (caller frees), or null at the end.
    char* (*get_next_token)(char** holder, const char* delimiter, char** cursor);
    // Canonical dotted form into destination (16 bytes, written even when the
    // text is then refused). 0 or -1.
    int (*parse_ip_address)(const char* text, char* destination);
    // 0 or -1.
    int (*parse_port)(const char* text, uint16_t* port);
    // "ip:port", split at the first ":". 0 or -1; a text without ":" is -1.
    int (*parse_ip_address_and_port)(const char* text, char* destination, uint16_t* port);
    // Comma-separated addresses or domain names, appended to `list` as
    // malloc'd texts in order (an address refused as such but accepted as a
    // domain name is stored in its canonical IPv4 form). 0 or -1; on -1 the
    // entries already appended stay.
    int (*parse_clear_services)(const char* text, List* list);
    // Strict test: digits and dots only, four numbers 0..255. 0 or -1.
    int (*is_valid_ipv4_format)(const char* text);
    // 1..63 of [A-Za-z0-9-], not starting or ending with "-". 0 or -1.
    int (*is_valid_domain_label)(const char* text);
    // 1..253 characters of valid labels joined by ".". 0 or -1.
    int (*is_valid_domain_name)(const char* text);
    // toupper on every character, in place.
    void (*to_upper_case)(char* text);
};

extern const ParsingModule Parsing;
