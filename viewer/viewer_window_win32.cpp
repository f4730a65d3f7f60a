// The viewer window: repaint requests, painting, input to the host, title.
//
// One window at a time, on the thread that runs the session. The receive thread posts to it
// and touches nothing else here. Positions and sizes are decided by view_geometry, painting
// is view_paint's; this file calls Windows and hands on.
//
//   created     viewer_window_open
//   WM_USER     the receive thread finished a frame: invalidate what became dirty
//   WM_CLOSE    the user closes it, or the receive thread after the connection ended
//   WM_DESTROY  ends the connection, saves and frees the tile cache, ends the message loop
#include "viewer/viewer_window.h"

#include "protocol/messages.h"
#include "protocol/win32.h"
#include "viewer/frame_decode.h"
#include "viewer/key_state.h"
#include "viewer/tile_cache.h"
#include "viewer/view_geometry.h"
#include "viewer/view_paint.h"
#include "viewer/viewer_channel.h"
#include "viewer/viewer_session.h"

#include <atomic>

namespace viewer
{

constexpr UINT WM_REPAINT = WM_USER;
constexpr UINT_PTR TITLE_TIMER = 1;
constexpr UINT TITLE_INTERVAL_MS = 1000;
constexpr UINT_PTR SAVE_TIMER = 2;
constexpr UINT SAVE_INTERVAL_MS = 300000;
constexpr char WINDOW_CLASS[] = "qvviewer";

// The window, null when there is none. Set and cleared by the window thread; atomic because
// any thread may post.
static std::atomic<HWND> viewer_window;

// Whether a repaint request is under way. One at a time is enough, and more could fill the
// message queue of a window that is busy, so that the request to close finds no room.
static std::atomic<bool> repaint_posted;

// Owner: the window thread.
static struct {
    char host_name[NAME_BYTES + 1];
    int32_t frame_width, frame_height;
    view_geometry view; // of the last paint; zeroed before the first
    key_state keys;     // what WM_KILLFOCUS has to release
    title_counters titled;
} window;

static void on_repaint_request(HWND hwnd)
{
    repaint_posted = false; // before the look: what comes after it asks again
    frame_lock_for_window();
    bool dirty = frame.dirty_valid;
    frame_rect rect = frame.dirty_rect;
    frame.dirty_valid = false;
    lock_leave(&frame_lock);
    if (!dirty)
        return;
    frame_rect invalid = view_invalid_rect(window.view, rect);
    RECT r = {invalid.left, invalid.top, invalid.right, invalid.bottom};
    InvalidateRect(hwnd, &r, FALSE);
}

static void on_paint(HWND hwnd)
{
    PAINTSTRUCT paint;
    HDC dc = BeginPaint(hwnd, &paint);
    RECT client;
    GetClientRect(hwnd, &client);
    frame_rect redraw = {paint.rcPaint.left, paint.rcPaint.top, paint.rcPaint.right,
                         paint.rcPaint.bottom};
    HDC source = (HDC)view_paint(dc, client.right, client.bottom, &window.view, &redraw);
    if (source)
        BitBlt(dc, redraw.left, redraw.top, redraw.right - redraw.left,
               redraw.bottom - redraw.top, source, redraw.left, redraw.top, SRCCOPY);
    EndPaint(hwnd, &paint);
}

static void on_title_timer(HWND hwnd)
{
    frame_lock_for_window();
    bool text_active = frame.text_active;
    lock_leave(&frame_lock);
    char title[TITLE_SIZE];
    view_title(title, window.host_name, window.frame_width, window.frame_height,
               statistics.stat_frames, statistics.stat_bytes, statistics.stat_hits,
               statistics.stat_misses, text_active, &window.titled);
    SetWindowTextA(hwnd, title);
}

// px and py are client coordinates. Before the first paint nothing is sent.
static void send_mouse(int32_t px, int32_t py, mouse_kind kind, uint8_t button, int16_t wheel)
{
    mouse_event mouse = {};
    if (!view_to_host(window.view, px, py, window.frame_width, window.frame_height, &mouse.x,
                      &mouse.y))
        return;
    mouse.kind = kind;
    mouse.button = button;
    mouse.wheel = wheel;
    viewer_send_mouse(mouse);
}

// A mouse message's point is two signed halves: a captured mouse goes left of the window.
static int16_t point_x(LPARAM lparam)
{
    return (int16_t)LOWORD(lparam);
}

static int16_t point_y(LPARAM lparam)
{
    return (int16_t)HIWORD(lparam);
}

static void on_mouse(LPARAM lparam, mouse_kind kind, uint8_t button)
{
    send_mouse(point_x(lparam), point_y(lparam), kind, button, 0);
}

// The wheel alone reports a screen point.
static void on_wheel(HWND hwnd, WPARAM wparam, LPARAM lparam)
{
    POINT point = {point_x(lparam), point_y(lparam)};
    ScreenToClient(hwnd, &point);
    send_mouse(point.x, point.y, MOUSE_WHEEL, 0, (int16_t)HIWORD(wparam));
}

static void on_key(WPARAM wparam, bool press)
{
    uint16_t virtual_key = LOWORD(wparam);
    key_state_note(&window.keys, virtual_key, press);
    viewer_send_key(virtual_key, press);
}

static void on_focus_lost()
{
    uint16_t virtual_key;
    while (key_state_take(&window.keys, &virtual_key))
        viewer_send_key(virtual_key, false);
}

static void on_destroy()
{
    viewer_window = nullptr;
    // First of all: the receive thread may hold the frame lock while it waits for a host
    // that does not read, and this ends its wait.
    viewer_session_abort();
    tile_cache_save_stop(); // its thread takes the frame lock, so before that
    frame_lock_for_window();
    if (tile_cache.cache_enabled) {
        tile_cache_save();
        tile_cache_close();
    }
    lock_leave(&frame_lock);
    PostQuitMessage(0);
}

static LRESULT CALLBACK window_procedure(HWND hwnd, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_REPAINT:
        on_repaint_request(hwnd);
        return 0;
    case WM_PAINT:
        on_paint(hwnd);
        return 0;
    case WM_SIZE:
        InvalidateRect(hwnd, nullptr, FALSE);
        return 0;
    case WM_ERASEBKGND:
        return 1; // the paint covers everything
    case WM_TIMER:
        if (wparam == TITLE_TIMER)
            on_title_timer(hwnd);
        else if (wparam == SAVE_TIMER)
            tile_cache_save_start();
        return 0;

    // System keys go to the host like all others and no further: Alt, F10 and Alt+F4 are
    // meant for what the picture shows. So is Alt+Space, which would open this window's
    // system menu as a character.
    case WM_KEYDOWN:
    case WM_SYSKEYDOWN:
        on_key(wparam, true);
        return 0;
    case WM_KEYUP:
    case WM_SYSKEYUP:
        on_key(wparam, false);
        return 0;
    case WM_SYSCHAR:
        return 0;
    case WM_KILLFOCUS:
        on_focus_lost();
        return 0;

    case WM_MOUSEMOVE:
        on_mouse(lparam, MOUSE_MOVE, 0);
        return 0;
    case WM_LBUTTONDOWN:
        SetCapture(hwnd); // a drag that leaves the window still ends here
        on_mouse(lparam, MOUSE_DOWN, 0);
        return 0;
    case WM_LBUTTONUP:
        ReleaseCapture();
        on_mouse(lparam, MOUSE_UP, 0);
        return 0;
    case WM_RBUTTONDOWN:
        on_mouse(lparam, MOUSE_DOWN, 1);
        return 0;
    case WM_RBUTTONUP:
        on_mouse(lparam, MOUSE_UP, 1);
        return 0;
    case WM_MBUTTONDOWN:
        on_mouse(lparam, MOUSE_DOWN, 2);
        return 0;
    case WM_MBUTTONUP:
        on_mouse(lparam, MOUSE_UP, 2);
        return 0;
    case WM_MOUSEWHEEL:
        on_wheel(hwnd, wparam, lparam);
        return 0;

    case WM_CLOSE:
        // Losing the focus on the way sends releases, and must not wait either. The host
        // releases what is down when the connection ends.
        viewer_session_abort();
        return DefWindowProcA(hwnd, message, wparam, lparam);
    case WM_DESTROY:
        on_destroy();
        return 0;
    default:
        return DefWindowProcA(hwnd, message, wparam, lparam);
    }
}

bool viewer_window_open(const char *host_name)
{
    window = {};
    copy_text(window.host_name, sizeof window.host_name, host_name);
    frame_lock_for_window();
    window.frame_width = frame.frame_width;
    window.frame_height = frame.frame_height;
    lock_leave(&frame_lock);
    repaint_posted = false;

    SetProcessDPIAware(); // sizes below are physical pixels
    HINSTANCE module = GetModuleHandleA(nullptr);
    WNDCLASSA window_class = {};
    window_class.lpfnWndProc = window_procedure;
    window_class.hInstance = module;
    window_class.hCursor = LoadCursorA(nullptr, (LPCSTR)IDC_ARROW);
    window_class.lpszClassName = WINDOW_CLASS;
    RegisterClassA(&window_class); // fails harmlessly from the second session on

    int32_t width, height;
    view_first_size(GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN),
                    window.frame_width, window.frame_height, &width, &height);
    RECT outer = {0, 0, width, height};
    AdjustWindowRect(&outer, WS_OVERLAPPEDWINDOW, FALSE);
    HWND hwnd =
        CreateWindowExA(0, WINDOW_CLASS, window.host_name, WS_OVERLAPPEDWINDOW | WS_VISIBLE,
                        CW_USEDEFAULT, CW_USEDEFAULT, outer.right - outer.left,
                        outer.bottom - outer.top, nullptr, nullptr, module, nullptr);
    if (!hwnd)
        return false;
    viewer_window = hwnd;
    SetTimer(hwnd, TITLE_TIMER, TITLE_INTERVAL_MS, nullptr);
    SetTimer(hwnd, SAVE_TIMER, SAVE_INTERVAL_MS, nullptr);
    return true;
}

void viewer_window_run()
{
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
}

void viewer_window_post_repaint()
{
    HWND hwnd = viewer_window;
    if (!hwnd || repaint_posted.exchange(true))
        return;
    if (!PostMessageA(hwnd, WM_REPAINT, 0, 0))
        repaint_posted = false;
}

void viewer_window_post_close()
{
    HWND hwnd = viewer_window;
    if (hwnd)
        PostMessageA(hwnd, WM_CLOSE, 0, 0);
}

} // namespace viewer
