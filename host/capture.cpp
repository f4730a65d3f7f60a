// One capture step, whichever back end makes it.
//
// Desktop Duplication is preferred: it says what changed, so only that is copied out of
// video memory. Its frame either passes (nothing new), is copied by its rectangles, or is
// copied whole, which is always right and therefore the answer to every doubt. Whatever
// fails for good, or would leave a frame unread, ends in one place: restart_duplication.
// GDI is the fallback. It copies everything each time, into a bitmap whose pixels are the
// frame_buffer, and the frame pipeline finds out what changed. A server that fell back stays
// there, and keeps its screen size.
//
// Invariant: every pixel in which frame_buffer may differ from before lies in a tile that
// was marked dirty. So a frame is either read in full or full_capture_pending stays set,
// and an area that duplication reports as moved is copied like a dirty one whether or not
// the move itself can be passed on.
//
// A screen that cannot be had (no memory for its buffers) is no end: steps capture nothing
// until it can.
//
// Owner: host server thread. host_lock is taken for frame_reset only.
#include "host/capture.h"

#include "host/capture_dxgi.h"
#include "host/capture_gdi.h"
#include "host/capture_pace.h"
#include "host/capture_plan.h"
#include "host/screen.h"
#include "identity/server_log.h"
#include "protocol/clock.h"

namespace host
{

static constexpr uint32_t ACQUIRE_WAIT_MS = 2;    // keeps the loop responsive
static constexpr uint32_t RESTART_PAUSE_MS = 200; // a mode or desktop change takes its time

enum capture_mode { MODE_GDI, MODE_DUPLICATION };

static struct {
    capture_mode mode;
    bool gdi_ready;       // GDI mode: the bitmap exists and is the frame_buffer
    uint64_t copy_end_us; // when the last GDI copy ended or failed, by clock_us
} capture;

// Gives the screen this size unless it has it; false when that cannot be had.
static bool take_size(int32_t width, int32_t height)
{
    if (width == screen.screen_width && height == screen.screen_height)
        return width > 0;
    return screen_resize(width, height);
}

static int dxgi_capture_init()
{
    int32_t width = 0, height = 0;
    dxgi_close();
    if (!dxgi_open(&width, &height))
        return 0;
    if (!take_size(width, height) || !dxgi_create_staging(width, height)) {
        dxgi_close();
        return 0;
    }
    screen.full_capture_pending = true;
    server_log("DXGI duplication %dx%d", width, height);
    return 1;
}

static void gdi_capture_init()
{
    int32_t width = 0, height = 0;
    gdi_screen_size(&width, &height);
    capture.gdi_ready = false;
    if (!take_size(width, height))
        return;
    uint8_t *pixels = gdi_open(screen.padded_width, screen.padded_height);
    if (!pixels)
        return;
    screen_lend_frame_buffer(pixels);
    capture.gdi_ready = true;
    server_log("GDI capture %dx%d", width, height);
}

static void choose_back_end()
{
    capture.mode = dxgi_capture_init() ? MODE_DUPLICATION : MODE_GDI;
    if (capture.mode == MODE_GDI)
        gdi_capture_init();
}

int capture_start()
{
    int32_t width = 0, height = 0;
    gdi_screen_size(&width, &height);
    (void)screen_resize(width, height); // the back end tries again where this fails
    choose_back_end();
    return capture_is_duplication();
}

bool capture_is_duplication()
{
    return capture.mode == MODE_DUPLICATION;
}

// The duplication is lost (a mode change, another desktop in front) or a frame of it: begin
// anew. The log line names the call that fails as a rule, whichever it was this time.
static capture_result restart_duplication(uint32_t code)
{
    server_log("AcquireNextFrame %08lx", (unsigned long)code);
    clock_sleep_ms(RESTART_PAUSE_MS);
    choose_back_end();
    lock_enter(&host_lock);
    frame_reset();
    lock_leave(&host_lock);
    return CAPTURE_RESTARTED;
}

static void copy_mapped(const uint8_t *bits, int64_t pitch, const capture_box &box)
{
    capture_copy_rect(bits, pitch, box.left, box.top, box.right, box.bottom);
}

// Brings what the staging texture shows of the whole screen into frame_buffer. width and
// height are what was copied of it.
static uint32_t read_whole(int32_t width, int32_t height)
{
    const uint8_t *bits = nullptr;
    int64_t pitch = 0;
    uint32_t code = dxgi_map(&bits, &pitch);
    if (!capture_succeeded(code))
        return code;
    copy_mapped(bits, pitch, {0, 0, width, height});
    screen.move_count = 0; // everything is dirty, and goes by its pixels
    dxgi_unmap();
    screen.full_capture_pending = false;
    return code;
}

static void note_move(const capture_move &move)
{
    if (screen.move_count >= MOVE_MAX)
        return;
    screen.move_list[screen.move_count++] = {
        move.src_x,
        move.src_y,
        move.dst.left,
        move.dst.top,
        move.dst.right - move.dst.left,
        move.dst.bottom - move.dst.top,
    };
}

// The same for the rectangles of a frame. A move that cannot be passed on is a dirty
// rectangle like any other; so is one too many.
static uint32_t read_rects(const duplication_rects &rects, int32_t width, int32_t height)
{
    const uint8_t *bits = nullptr;
    int64_t pitch = 0;
    uint32_t code = dxgi_map(&bits, &pitch);
    if (!capture_succeeded(code))
        return code;
    capture_box box;
    for (uint32_t i = 0; i < rects.move_count; i++) {
        const capture_move &move = rects.moves[i];
        if (move_counts(move, width, height))
            note_move(move);
        if (box_clip(move.dst, width, height, &box))
            copy_mapped(bits, pitch, box);
    }
    for (uint32_t i = 0; i < rects.dirty_count; i++) {
        if (box_clip(rects.dirty[i], width, height, &box))
            copy_mapped(bits, pitch, box);
    }
    dxgi_unmap();
    screen.full_capture_pending = false;
    return code;
}

// Copies the rectangles of the held frame into the staging texture.
static void stage_rects(const duplication_rects &rects, int32_t width, int32_t height)
{
    capture_box box;
    for (uint32_t i = 0; i < rects.move_count; i++) {
        if (box_clip(rects.moves[i].dst, width, height, &box))
            dxgi_copy_box(box);
    }
    for (uint32_t i = 0; i < rects.dirty_count; i++) {
        if (box_clip(rects.dirty[i], width, height, &box))
            dxgi_copy_box(box);
    }
}

static capture_result duplication_step()
{
    duplication_frame frame = {};
    uint32_t code = dxgi_acquire(ACQUIRE_WAIT_MS, &frame);
    switch (plan_acquire(code)) {
    case ACQUIRE_NOTHING:
        return CAPTURE_NOTHING;
    case ACQUIRE_LOST:
        return restart_duplication(code);
    case ACQUIRE_FRAME:
        break;
    }

    frame_path path = plan_frame(frame, screen.full_capture_pending);
    if (path == FRAME_SKIP) {
        dxgi_release_frame();
        return CAPTURE_NOTHING;
    }
    duplication_rects rects = {};
    if (path == FRAME_RECTS && !dxgi_read_rects(frame.rects_bytes, &rects))
        path = FRAME_WHOLE;

    int32_t width = 0, height = 0;
    code = dxgi_open_picture(&width, &height);
    if (!capture_succeeded(code)) {
        dxgi_release_frame();
        return restart_duplication(code);
    }
    // Around a mode change the picture need not have the screen's size; copying outside
    // either of them would copy nothing at all.
    bool same_size = width == screen.screen_width && height == screen.screen_height;
    if (width > screen.screen_width)
        width = screen.screen_width;
    if (height > screen.screen_height)
        height = screen.screen_height;

    if (path == FRAME_RECTS)
        stage_rects(rects, width, height);
    else if (same_size)
        dxgi_copy_picture();
    else
        dxgi_copy_box({0, 0, width, height});
    dxgi_release_frame();

    code = path == FRAME_RECTS ? read_rects(rects, width, height) : read_whole(width, height);
    return capture_succeeded(code) ? CAPTURE_FRAME : restart_duplication(code);
}

static capture_result gdi_step()
{
    if (!capture.gdi_ready)
        gdi_capture_init();
    if (!capture.gdi_ready) {
        clock_sleep_ms(RESTART_PAUSE_MS);
        return CAPTURE_NOTHING;
    }
    // Before the copy, not after it: what is sent is then never older than it need be.
    capture_pace_wait(capture.copy_end_us);
    int32_t width = screen.screen_width, height = screen.screen_height;
    bool copied = gdi_copy(width, height);
    capture.copy_end_us = clock_us();
    if (!copied)
        return CAPTURE_NOTHING;
    screen_dirty_all();
    return CAPTURE_FRAME;
}

capture_result capture_step()
{
    return capture_is_duplication() ? duplication_step() : gdi_step();
}

} // namespace host
