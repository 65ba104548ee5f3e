// Linked only into the fully static binary, in place of glibc's name
// resolution. libevent's evutil.o refers to getaddrinfo, freeaddrinfo,
// getservbyname and getprotobynumber for evutil_getaddrinfo, which this tool
// never calls: it connects to 127.0.0.1 by number. Static glibc can only
// serve those by loading NSS modules of its own exact version at run time,
// and the linker warns about it; the link wraps the four names (--wrap) so
// that these answers are taken instead and glibc's resolver is left out.
// They refuse every look-up, as a resolver that knows no names would.

#include <netdb.h>

#include <cerrno>

extern "C" {

int __wrap_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo** result) {
    *result = nullptr;
    return EAI_NONAME;
}

// Lists of libevent's own making are freed by libevent; this one only sees
// what __wrap_getaddrinfo returned, which is never a list.
void __wrap_freeaddrinfo(addrinfo*) {}

servent* __wrap_getservbyname(const char*, const char*) {
    errno = ENOENT;
    return nullptr;
}

protoent* __wrap_getprotobynumber(int) {
    errno = ENOENT;
    return nullptr;
}
}
