// What the tool says of a value it refuses before connecting, in both
// readings; scripts match these texts.
#pragma once

constexpr const char* BAD_P_MESSAGE =
    "Bad format specified in p parameter. Expected ip_address:port. For example: "
    "127.0.0.1:80\n";
constexpr const char* BAD_C_MESSAGE =
    "Bad format specified in c parameter. Expected ip_address:port. For example: "
    "127.0.0.1:80\n";
constexpr const char* SAME_PORTS_MESSAGE =
    "Final port and virtual port must be different when port forwarding is enabled.\n";
constexpr const char* BAD_F_MESSAGE =
    "Bad format specified in f parameter. Expected virtual port.\n";
constexpr const char* BAD_K_MESSAGE =
    "Bad format specified in k parameter. Expected length of 76\n";
constexpr const char* BAD_U_MESSAGE =
    "Bad format specified in u parameter. Expected list of clear services(domain name or ip "
    "address). For example: firstDomainName.net,127.0.0.1,secondDomainName\n";
constexpr const char* BAD_T_MESSAGE =
    "Bad format specified in t parameter. Expected proxy type. Possible values: HTTP, HTTPS, "
    "Socks5.\n";
// The two number messages of the traceability configuration are crossed
// relative to their fields (the file size speaks of the syslog port and the
// reverse); scripts match them.
constexpr const char* BAD_FILE_SIZE_MESSAGE =
    "An error occurred while saving traceability configuration. Unable to retrieve syslog "
    "server port.\n";
constexpr const char* BAD_SYSLOG_PORT_MESSAGE =
    "An error occurred while saving traceability configuration. Unable to retrieve file max "
    "size.\n";
