// The host program's command line.
#ifndef QV_HOST_HOST_CLI_H
#define QV_HOST_HOST_CLI_H

namespace host
{

enum host_command {
    HOST_RUN_DIRECT, // listen on the host's port
    HOST_RUN_RELAY,  // serve through the relay
    HOST_QUIT,       // end the host that runs
    HOST_USAGE,      // not understood: print the usage
};

// What a command line asks for; argv[0] is the program. Pure.
host_command host_parse_arguments(int argc, char **argv);

} // namespace host

#endif
