// The command-line viewer: arguments in, one session.
#ifndef QV_VIEWER_VIEWER_CLI_H
#define QV_VIEWER_VIEWER_CLI_H

#include <stdint.h>

namespace viewer {

// What a command line asks for. Texts point into argv or at constants, but for the relay's,
// which are copies.
struct viewer_arguments {
    bool usage; // print the usage and return 1; the rest is not set then
    bool via_relay;
    const char *host;
    const char *port;
    const char *password;
    char host_id[19];
    char relay_address[128]; // split in two texts when via_relay: host, then port
    char relay_port[12];
};

// Parses a command line; argv[0] is the program. Pure.
viewer_arguments viewer_parse_arguments(int argc, char **argv);

// Parses, prints the usage or runs a session. Returns the program's exit status.
int viewer_cli_main(int argc, char **argv);

} // namespace viewer

#endif
