// What host_server.cpp does between a handshake and a session's end, without the server's
// accepting, registering and log.
#include "bench/session.h"

#include "host/control_thread.h"
#include "host/frame_pipeline.h"
#include "host/host_channel.h"
#include "host/host_session.h"
#include "protocol/clock.h"
#include "protocol/handshake.h"
#include "protocol/thread.h"
#include "viewer/viewer_channel.h"

#include <string.h>

static const char PASSWORD[] = "correct horse";

static void read_password(char password[PASSWORD_MAX + 1])
{
    strcpy(password, PASSWORD);
}

void bench_serve(net_socket sock, uint32_t advert_wait_ms)
{
    if (!handshake_as_host(&host::host_channel, sock, read_password, {}))
        return;
    host::host_session *session = host::session_create(sock, host::frame_seq);
    if (!session)
        return;
    session->hello_sent_ms = clock_ms();
    session->advert_wait_ms = advert_wait_ms;
    channel_take_receiver(&host::host_channel, &session->receiver);
    host::frame_pipeline_start(CAP_TILE_CACHE);
    session->owners.fetch_add(1);
    thread *control = thread_start(host::control_thread, session);
    host::frame_pipeline_run(session);
    net_abort(sock);
    if (control)
        thread_join(control, THREAD_WAIT_FOREVER);
    host::session_retire();
    channel_reset(&host::host_channel);
    host::session_release(session); // closes the socket
}

bool bench_join(net_socket sock)
{
    return handshake_as_viewer(&viewer::viewer_channel, sock, PASSWORD);
}
