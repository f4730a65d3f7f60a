// A viewer for tests over a relay: the command-line viewer with a window that shows nothing
// and is closed when it has been asked to paint. Its arguments are those of qv_client, as is
// its status: 0 after a session, 1 when there was none.
#include "tests/fakes/window_none.h"
#include "viewer/viewer_cli.h"

#include <stdio.h>
#include <thread>
#include <unistd.h>

int main(int argc, char **argv)
{
    std::thread([] {
        if (window_none_wait_repaints(1)) {
            puts("picture");
            fflush(stdout);
        }
        window_none_close(); // after ten seconds in any case
    }).detach();
    const int status = viewer::viewer_cli_main(argc, argv);
    fflush(stdout);
    _exit(status); // without waiting for the other thread
}
