// Two connected TCP sockets over loopback, for tests that need a real connection. Both
// builds have it (POSIX sockets natively, Winsock under Wine); no test needs to ask for it
// in its head comments, the include is enough:
//
//   socket_pair p = socket_pair_open(); // fails the test case when it cannot be had
//   ... p.host is what accept gave, p.viewer what connect gave; the two are alike ...
//   socket_pair_close(&p);              // or net_close each once no thread uses it
//
// A side that a test closes itself is set to NET_INVALID, which socket_pair_close skips.
#ifndef QV_TESTS_SOCKET_PAIR_H
#define QV_TESTS_SOCKET_PAIR_H

#include "protocol/net.h"

struct socket_pair {
    net_socket host;
    net_socket viewer;
};

socket_pair socket_pair_open();
void socket_pair_close(socket_pair *pair);

// Listens on some free port, written to *port. Test programs run in parallel, so each
// starts looking somewhere else. Fails the test case when no port can be had.
net_socket test_listen(uint16_t *port, int backlog);

#endif
