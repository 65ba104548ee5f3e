// Strict reading of addresses, ports, endpoints, clear services and service
// names: what the scripting interface and the desired-state file accept. The
// text must be exactly the value, nothing before or after it, so nothing is
// ever sent in a form other than the one written. Pure functions: no
// printing, no logging, no exit.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

// Four decimal octets 0-255 joined by dots; no sign, no blank, no leading
// zero ("010" could be octal), nothing after. Fills `octets` (may be null)
// only on success.
bool parse_strict_ipv4(std::string_view text, std::array<uint8_t, 4>* octets);

// A decimal port 1-65535; no sign, no blank, no leading zero, nothing after.
// Fills `port` (may be null) only on success.
bool parse_strict_port(std::string_view text, uint16_t* port);

// "ip_address:port". `address` views into `text`, which must outlive it.
struct StrictEndpoint {
    std::string_view address;
    uint16_t port;
};
enum class EndpointError { none, missing_port, bad_address, bad_port };
// Splits at the first ":" and reads each side strictly; fills `endpoint`
// (may be null) only on success.
EndpointError parse_strict_endpoint(std::string_view text, StrictEndpoint* endpoint);

// A strict IPv4 address, or a domain name (labels of 1-63 letters, digits
// and "-", not starting or ending with "-"; 253 bytes at most) that no
// reading could take for an address: its last label is not all digits and
// it does not start with four numeric labels (the lenient reading sends
// 10.0.0.5.nip.io as 10.0.0.5 and 300.1.1.1 as 44.1.1.1).
bool is_strict_clear_service(std::string_view text);

// 1 to 255 bytes of well-formed UTF-8 (no overlong forms, no surrogates).
bool is_strict_service_name(std::string_view text);

// Well-formed UTF-8, as above, of any length.
bool is_utf8(std::string_view text);
