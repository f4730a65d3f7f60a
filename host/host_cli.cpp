// The host program's command line: one option at most. What it asks for is done by
// host_main_win32.cpp.
#include "host/host_cli.h"

#include <string.h>

namespace host
{

host_command host_parse_arguments(int argc, char **argv)
{
    if (argc < 2)
        return HOST_RUN_DIRECT;
    if (argc == 2 && strcmp(argv[1], "-r") == 0)
        return HOST_RUN_RELAY;
    if (argc == 2 && strcmp(argv[1], "-q") == 0)
        return HOST_QUIT;
    return HOST_USAGE;
}

} // namespace host
