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
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
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

// Older trees do not have it.
template <class pointer> static void touch_cache(pointer nothing)
{
    using namespace viewer;
    if constexpr (requires { tile_cache_touch(nothing); })
        tile_cache_touch(nothing);
}

void bench_touch_cache()
{
    touch_cache((void *)nullptr);
}

bool bench_shows(const picture &screen)
{
    lock_enter(&viewer::frame_lock);
    bool same = true;
    for (int32_t y = 0; same && y < screen.height; y++)
        same = memcmp(viewer::frame.frame_pixels +
                          (size_t)y * (size_t)viewer::frame.frame_stride * 4,
                      &screen.pixels[(size_t)y * (size_t)screen.width],
                      (size_t)screen.width * 4) == 0;
    lock_leave(&viewer::frame_lock);
    return same;
}
