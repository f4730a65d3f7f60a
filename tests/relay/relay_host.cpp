// A host for tests over a relay: the real server, identity, log and sockets on a desktop that
// rests. Its data directory is where PROGRAMDATA says, relay.txt in it names the relay.
//
//   relay_host        serves until its standard input ends
//
// Requests, one a line:
//
//   clock MS     puts the clock forward, and answers "clock"
#include "host/host_server.h"
#include "identity/host_identity.h"
#include "identity/server_log.h"
#include "tests/fakes/clock_offset.h"
#include "tests/fakes/desktop.h"

#include <stdio.h>
#include <thread>

int main()
{
    desktop_reset(64, 64, true);
    desktop_paint(0x40); // something to see: it begins in black
    host_identity_init(1);
    server_log_open();
    std::thread server([] { (void)host::host_server_run(); });
    char line[64];
    unsigned ms = 0;
    while (fgets(line, sizeof line, stdin))
        if (sscanf(line, "clock %u", &ms) == 1) {
            clock_put_forward(ms);
            puts("clock");
            fflush(stdout);
        }
    host::host_stop();
    server.join();
    return 0;
}
