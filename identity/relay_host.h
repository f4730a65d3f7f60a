// Where the relay is: the name that the program was built with, or what the administrator
// wrote into relay.txt in the data directory, one line with a host name or an address.
#ifndef QV_IDENTITY_RELAY_HOST_H
#define QV_IDENTITY_RELAY_HOST_H

#include <stddef.h>

constexpr size_t RELAY_HOST_SIZE = 128; // with terminator

// Reads relay.txt. Called at a program's start, before other threads exist. When there is
// nothing to be used in the file, the built-in name stands.
void relay_host_load();

// The relay's host name or address, without a port. Any thread.
const char *relay_host_get();

// What a relay.txt of these bytes says: cuts blanks and line ends around it and copies it to
// host. False, with host untouched, when that is empty, longer than 127 bytes, or has a blank,
// a ':' or a control character inside. Pure.
[[nodiscard]] bool relay_host_parse(const char *text, size_t size, char host[RELAY_HOST_SIZE]);

#endif
