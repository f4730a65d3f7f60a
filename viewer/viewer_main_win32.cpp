// qv_client: the command-line viewer as a program.
#include "viewer/viewer_cli.h"

int main(int argc, char **argv)
{
    return viewer::viewer_cli_main(argc, argv);
}
