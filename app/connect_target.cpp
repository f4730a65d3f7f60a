// Telling IDs from addresses. Pure, but for the request's memory.
#include "app/connect_target.h"

#include "protocol/bytes.h"
#include "protocol/net.h"

#include <monocypher.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace app
{

static bool is_id(const char *target)
{
    return target[strspn(target, "0123456789")] == 0;
}

connect_request *connect_request_new(const char *target, const char *password,
                                     const char *relay_host)
{
    connect_request *request = (connect_request *)calloc(1, sizeof *request);
    if (!request)
        return nullptr;
    copy_text(request->target, sizeof request->target, target);
    copy_text(request->password, sizeof request->password, password);
    if (is_id(target)) {
        request->use_relay = 1;
        copy_text(request->host, sizeof request->host, relay_host);
        snprintf(request->port, sizeof request->port, "%d", RELAY_PORT);
        return request;
    }
    copy_text(request->host, sizeof request->host, target);
    char *colon = strrchr(request->host, ':');
    if (colon) {
        *colon = 0;
        copy_text(request->port, sizeof request->port, colon + 1);
    } else {
        snprintf(request->port, sizeof request->port, "%d", HOST_PORT);
    }
    return request;
}

void connect_request_free(connect_request *request)
{
    crypto_wipe(request, sizeof *request);
    free(request);
}

} // namespace app
