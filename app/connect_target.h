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
    char password[CONNECT_PASSWORD_SIZE];
    uint32_t use_relay;
};

// A new request; every text is cut to its field. Null when there is no memory for it. The
// caller owns it and passes it to connect_request_free.
//
// A target of decimal digits alone is an ID, to be reached through the relay. Anything else is
// the address of a host, with a port behind its last colon if it has one; blanks make no ID,
// and an IPv6 address without a port is split at its last colon like any other.
[[nodiscard]] connect_request *connect_request_new(const char *target, const char *password,
                                                   const char *relay_host);

// Wipes the password and frees the request.
void connect_request_free(connect_request *request);

} // namespace app

#endif
