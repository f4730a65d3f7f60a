// The command-line viewer: what qv_client does, apart from being a program.
#include "viewer/viewer_cli.h"

#include "identity/relay_host.h"
#include "protocol/bytes.h"
#include "protocol/net.h"
#include "protocol/relay_hello.h"
#include "viewer/viewer_session.h"

#include <stdio.h>
#include <string.h>

namespace viewer
{

// Takes a relay address apart at its last ':'. Without one the port stays as it is.
static void split_relay_address(const char *address, viewer_arguments *arguments)
{
    copy_text(arguments->relay_address, sizeof arguments->relay_address, address);
    arguments->host = arguments->relay_address;
    char *colon = strrchr(arguments->relay_address, ':');
    if (colon) {
        *colon = 0;
        arguments->port = colon + 1;
    }
}

void viewer_parse_arguments(int argc, char **argv, viewer_arguments *arguments)
{
    *arguments = {};
    arguments->password = "";
    copy_text(arguments->host_id, sizeof arguments->host_id, RELAY_DEFAULT_ROOM);

    const char *host = nullptr;
    const char *port = nullptr;
    for (int i = 1; i < argc; i++) {
        bool has_value = i + 1 < argc;
        bool is_password = strcmp(argv[i], "-p") == 0;
        if (strcmp(argv[i], "-r") == 0 && has_value) {
            copy_text(arguments->host_id, sizeof arguments->host_id, argv[++i]);
            arguments->via_relay = true;
        } else if (is_password && has_value) {
            arguments->password = argv[++i];
        } else if (host) {
            port = argv[i]; // the last one counts, kept on purpose even if it is a lone "-p"
        } else if (!is_password) {
            host = argv[i];
        }
    }
    if (argc < 2 || (!host && !arguments->via_relay)) {
        arguments->usage = true;
        return;
    }

    snprintf(arguments->default_port, sizeof arguments->default_port, "%d",
             arguments->via_relay ? RELAY_PORT : HOST_PORT);
    arguments->port = arguments->default_port;
    if (arguments->via_relay) {
        // A port of its own means nothing here: the relay's stands behind its ':'.
        split_relay_address(host ? host : relay_host_get(), arguments);
        return;
    }
    arguments->host = host;
    if (port)
        arguments->port = port;
}

int viewer_cli_main(int argc, char **argv)
{
    relay_host_load();
    viewer_arguments arguments;
    viewer_parse_arguments(argc, argv, &arguments);
    if (arguments.usage) {
        printf("usage: qv_client <host> [port] -p <password>          direct\n"
               "       qv_client -r <ID> [relayhost[:port]] -p <password>   via relay "
               "(default %s:%d)\n",
               relay_host_get(), RELAY_PORT);
        fflush(stdout); // at once, also through a pipe
        return 1;
    }
    return viewer_session_run(arguments.host, arguments.port, arguments.via_relay,
                              arguments.host_id, arguments.password, nullptr, 0);
}

} // namespace viewer
