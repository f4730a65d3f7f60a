// qv_client: the command-line viewer as a program.
#include "protocol/system_library.h"
#include "viewer/viewer_cli.h"

int main(int argc, char **argv)
{
    system_library_restrict();
    return viewer::viewer_cli_main(argc, argv);
}
