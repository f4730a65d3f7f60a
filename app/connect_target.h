// What the user typed to reach another computer, as a request for one viewer session.
#ifndef QV_APP_CONNECT_TARGET_H
#define QV_APP_CONNECT_TARGET_H

#include <stddef.h>
#include <stdint.h>

namespace app
{

constexpr size_t CONNECT_TEXT_SIZE = 128;    // buffer for what the target field holds
constexpr size_t CONNECT_PASSWORD_SIZE = 64; // and the password field; both with terminator

struct connect_request {
    char host[CONNECT_TEXT_SIZE]; // the relay, or the host itself
    char port[16];                // decimal, or whatever stood behind the colon
    char target[64];              // as typed: the room at the relay, and the history's key
    char password[CONNECT_PASSWORD_SIZE]; // to be wiped by whoever frees the request
    uint32_t use_relay;
};

// Fills a request; every field is cut to its size. A target of decimal digits alone is an
// ID, to be reached through the relay. Anything else is the address of a host, with a port
// behind its last colon if it has one; blanks make no ID, and an IPv6 address without a port
// is split at its last colon like any other. Pure.
void connect_request_fill(connect_request *request, const char *target, const char *password,
                          const char *relay_host);

} // namespace app

#endif
