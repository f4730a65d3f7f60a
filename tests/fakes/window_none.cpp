#include "tests/fakes/window_none.h"

#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_session.h"
#include "viewer/viewer_window.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

static std::mutex mutex;
static std::condition_variable changed;
static struct {
    bool refused;
    bool closing;
    bool quitting;
    uint32_t repaints, close_requests, opened;
    std::string title;
} state;

static void request_close(uint32_t by_product)
{
    std::lock_guard<std::mutex> hold(mutex);
    state.closing = true;
    state.close_requests += by_product;
    changed.notify_all();
}

static bool wait_for(const uint32_t *counter, uint32_t count)
{
    std::unique_lock<std::mutex> hold(mutex);
    return changed.wait_for(hold, std::chrono::seconds(10), [&] { return *counter >= count; });
}

void window_none_reset()
{
    std::lock_guard<std::mutex> hold(mutex);
    state = {};
}

void window_none_refuse()
{
    std::lock_guard<std::mutex> hold(mutex);
    state.refused = true;
}

void window_none_close()
{
    request_close(0);
}

void window_none_quit()
{
    std::lock_guard<std::mutex> hold(mutex);
    state.quitting = true;
    changed.notify_all();
}

uint32_t window_none_repaints()
{
    std::lock_guard<std::mutex> hold(mutex);
    return state.repaints;
}

uint32_t window_none_close_requests()
{
    std::lock_guard<std::mutex> hold(mutex);
    return state.close_requests;
}

uint32_t window_none_opened()
{
    std::lock_guard<std::mutex> hold(mutex);
    return state.opened;
}

std::string window_none_title()
{
    std::lock_guard<std::mutex> hold(mutex);
    return state.title;
}

bool window_none_wait_repaints(uint32_t count)
{
    return wait_for(&state.repaints, count);
}

bool window_none_wait_opened(uint32_t count)
{
    return wait_for(&state.opened, count);
}

namespace viewer
{

bool viewer_window_open(const char *host_name)
{
    std::lock_guard<std::mutex> hold(mutex);
    if (state.refused)
        return false;
    state.closing = false;
    state.quitting = false;
    state.title = host_name;
    state.opened++;
    changed.notify_all();
    return true;
}

void viewer_window_run()
{
    {
        std::unique_lock<std::mutex> hold(mutex);
        changed.wait(hold, [] { return state.closing || state.quitting; });
        if (state.quitting)
            return;
    }
    viewer_session_abort();
    tile_cache_save_stop();
    frame_lock_for_window();
    if (tile_cache.cache_enabled) {
        tile_cache_save();
        tile_cache_close();
    }
    lock_leave(&frame_lock);
}

void viewer_window_post_repaint()
{
    std::lock_guard<std::mutex> hold(mutex);
    state.repaints++;
    changed.notify_all();
}

void viewer_window_post_close()
{
    request_close(1);
}

} // namespace viewer
