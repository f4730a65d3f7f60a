// The command-line viewer: arguments in, one session.
#ifndef QV_VIEWER_VIEWER_CLI_H
#define QV_VIEWER_VIEWER_CLI_H

#include <stdint.h>

namespace viewer
{

// What a command line asks for. Not to be copied: host and port may point into the record
// itself, where the relay's address is taken apart. The other texts point into argv or at
// constants.
struct viewer_arguments {
    bool usage; // print the usage and return 1; the rest is not set then
    bool via_relay;
    const char *host; // the relay's, with via_relay
    const char *port;
    const char *password;
    char host_id[19];
    char relay_address[128]; // the relay's host, a terminator in place of ':', its port
    char default_port[12];   // where no port was given
};

// Parses a command line; argv[0] is the program. Pure, but for the default relay
// (identity/relay_host.h).
void viewer_parse_arguments(int argc, char **argv, viewer_arguments *arguments);

// Parses, prints the usage or runs a session. Returns the program's exit status.
int viewer_cli_main(int argc, char **argv);

} // namespace viewer

#endif
