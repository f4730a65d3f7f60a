// Windows only
// Fakes: viewer_channel_memory session_record cache_disk_memory
#include "viewer/viewer_window.h"

#include "protocol/messages.h"
#include "protocol/thread.h"
#include "protocol/win32.h"
#include "tests/fakes/cache_disk_memory.h"
#include "tests/fakes/session_record.h"
#include "tests/fakes/viewer_channel_memory.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"

#include <string>

using namespace viewer;

static bool text_active(bool active)
{
    lock_enter(&frame_lock);
    bool before = frame.text_active;
    frame.text_active = active;
    lock_leave(&frame_lock);
    return before;
}

static void dirty(int32_t left, int32_t top, int32_t right, int32_t bottom)
{
    lock_enter(&frame_lock);
    dirty_union(left, top, right, bottom);
    lock_leave(&frame_lock);
}

// A window with a picture of this size in it, not yet painted.
static HWND open_window(int32_t width, int32_t height)
{
    memory_reset();
    session_aborts = 0;
    REQUIRE(frame_open(width, height));
    REQUIRE(viewer_window_open("OFFICE"));
    HWND hwnd = FindWindowA("qvviewer", nullptr);
    REQUIRE(hwnd);
    return hwnd;
}

// Closes as the receive thread does and runs the loop to its end.
static void close_window()
{
    viewer_window_post_close();
    viewer_window_run();
    CHECK(FindWindowA("qvviewer", nullptr) == nullptr);
    frame_close();
}

static void resize_client(HWND hwnd, int32_t width, int32_t height)
{
    RECT outer = {0, 0, width, height};
    AdjustWindowRect(&outer, WS_OVERLAPPEDWINDOW, FALSE);
    SetWindowPos(hwnd, nullptr, 0, 0, outer.right - outer.left, outer.bottom - outer.top,
                 SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
    RECT client;
    GetClientRect(hwnd, &client);
    REQUIRE(client.right == width);
    REQUIRE(client.bottom == height);
}

static LPARAM point(int x, int y)
{
    return MAKELPARAM((uint16_t)x, (uint16_t)y);
}

static std::string title_of(HWND hwnd)
{
    char title[300];
    GetWindowTextA(hwnd, title, sizeof title);
    return title;
}

// The messages sent so far, one text each, and none left.
static std::string take_sent()
{
    std::string all;
    for (const std::vector<uint8_t> &message : memory_sent) {
        char text[100] = "?";
        message_header header = get_header(message.data());
        const uint8_t *payload = message.data() + MESSAGE_HEADER_BYTES;
        REQUIRE(message.size() == MESSAGE_HEADER_BYTES + header.length);
        if (header.type == MSG_MOUSE) {
            mouse_event m = get_mouse(payload);
            snprintf(text, sizeof text, "mouse %d,%d kind %d button %d wheel %d; ", (int)m.x,
                     (int)m.y, m.kind, m.button, m.wheel);
        } else if (header.type == MSG_KEY) {
            snprintf(text, sizeof text, "key %06x; ", (unsigned)load_le32(payload));
        }
        all += text;
    }
    memory_sent.clear();
    return all;
}

TEST_CASE("the window is born with the host's name and the picture's size")
{
    HWND hwnd = open_window(400, 300);
    CHECK(title_of(hwnd) == "OFFICE");
    RECT client;
    GetClientRect(hwnd, &client);
    CHECK(client.right == 400);
    CHECK(client.bottom == 300);
    LONG style = GetWindowLongA(hwnd, GWL_STYLE);
    CHECK((style & WS_OVERLAPPEDWINDOW) == WS_OVERLAPPEDWINDOW);
    CHECK((style & WS_VISIBLE) != 0);
    CHECK(GetClassLongPtrA(hwnd, GCLP_HBRBACKGROUND) == 0);
    CHECK(SendMessageA(hwnd, WM_ERASEBKGND, 0, 0) == 1);
    close_window();
}

TEST_CASE("a picture larger than the screen gets a window of nine tenths of it")
{
    HWND hwnd = open_window(5000, 4000);
    RECT client;
    GetClientRect(hwnd, &client);
    CHECK(client.right == GetSystemMetrics(SM_CXSCREEN) * 9 / 10);
    CHECK(client.bottom == GetSystemMetrics(SM_CYSCREEN) * 9 / 10);
    close_window();
}

TEST_CASE("the window shows the picture between black bars")
{
    HWND hwnd = open_window(400, 300);
    resize_client(hwnd, 420, 310);
    lock_enter(&frame_lock);
    // Blue, green, red of the first pixel and of the last.
    store_le32(frame.frame_pixels, 0xFF112233);
    store_le32(frame.frame_pixels + (299 * 448 + 399) * 4, 0x00445566);
    lock_leave(&frame_lock);
    InvalidateRect(hwnd, nullptr, FALSE);
    UpdateWindow(hwnd);
    CHECK_FALSE(GetUpdateRect(hwnd, nullptr, FALSE));
    HDC dc = GetDC(hwnd);
    CHECK(GetPixel(dc, 10, 5) == RGB(0x11, 0x22, 0x33));
    CHECK(GetPixel(dc, 409, 304) == RGB(0x44, 0x55, 0x66));
    CHECK(GetPixel(dc, 9, 5) == RGB(0, 0, 0));
    CHECK(GetPixel(dc, 410, 304) == RGB(0, 0, 0));

    // A change that nobody announced is not painted; an announced one is.
    lock_enter(&frame_lock);
    store_le32(frame.frame_pixels, 0xFF778899);
    lock_leave(&frame_lock);
    UpdateWindow(hwnd);
    CHECK(GetPixel(dc, 10, 5) == RGB(0x11, 0x22, 0x33));
    dirty(0, 0, 1, 1);
    SendMessageA(hwnd, WM_USER, 0, 0);
    UpdateWindow(hwnd);
    CHECK(GetPixel(dc, 10, 5) == RGB(0x77, 0x88, 0x99));
    ReleaseDC(hwnd, dc);
    close_window();
}

TEST_CASE("a repaint request invalidates the dirty rectangle once")
{
    HWND hwnd = open_window(400, 300);
    resize_client(hwnd, 420, 310); // the picture at (10, 5)
    UpdateWindow(hwnd);

    dirty(64, 128, 128, 192);
    dirty(100, 100, 130, 150);
    SendMessageA(hwnd, WM_USER, 0, 0);
    RECT r = {};
    REQUIRE(GetUpdateRect(hwnd, &r, FALSE));
    CHECK(r.left == 73);    // 10 + 64 - 1
    CHECK(r.top == 104);    // 5 + 100 - 1
    CHECK(r.right == 142);  // 10 + 130 + 2
    CHECK(r.bottom == 199); // 5 + 192 + 2

    ValidateRect(hwnd, nullptr);
    SendMessageA(hwnd, WM_USER, 0, 0);
    CHECK_FALSE(GetUpdateRect(hwnd, nullptr, FALSE));

    // A new size invalidates everything.
    SendMessageA(hwnd, WM_SIZE, SIZE_RESTORED, point(420, 310));
    REQUIRE(GetUpdateRect(hwnd, &r, FALSE));
    CHECK(r.right == 420);
    CHECK(r.bottom == 310);
    resize_client(hwnd, 430, 320);
    REQUIRE(GetUpdateRect(hwnd, &r, FALSE));
    CHECK(r.left == 0);
    CHECK(r.top == 0);
    CHECK(r.right == 430);
    CHECK(r.bottom == 320);
    close_window();
}

TEST_CASE("mouse messages before the first paint are dropped, keys are not")
{
    HWND hwnd = open_window(400, 300);
    SendMessageA(hwnd, WM_MOUSEMOVE, 0, point(5, 5));
    SendMessageA(hwnd, WM_RBUTTONDOWN, 0, point(5, 5));
    CHECK(take_sent() == "");
    SendMessageA(hwnd, WM_KEYDOWN, 'A', 0);
    CHECK(take_sent() == "key 010041; ");
    UpdateWindow(hwnd);
    SendMessageA(hwnd, WM_MOUSEMOVE, 0, point(5, 5));
    CHECK(take_sent() == "mouse 5,5 kind 0 button 0 wheel 0; ");
    close_window();
}

TEST_CASE("mouse messages carry the host's pixel, kind and button")
{
    HWND hwnd = open_window(400, 300);
    resize_client(hwnd, 220, 150); // scale 0.5, the picture at (10, 0), 200 x 150
    UpdateWindow(hwnd);
    static const struct {
        UINT message;
        int x, y;
        const char *sent;
    } rows[] = {
        {WM_MOUSEMOVE, 110, 75, "mouse 200,150 kind 0 button 0 wheel 0; "},
        {WM_RBUTTONDOWN, 11, 1, "mouse 2,2 kind 1 button 1 wheel 0; "},
        {WM_RBUTTONUP, 12, 1, "mouse 4,2 kind 2 button 1 wheel 0; "},
        {WM_MBUTTONDOWN, 11, 2, "mouse 2,4 kind 1 button 2 wheel 0; "},
        {WM_MBUTTONUP, 11, 3, "mouse 2,6 kind 2 button 2 wheel 0; "},
        {WM_MOUSEMOVE, 210, 150, "mouse 399,299 kind 0 button 0 wheel 0; "}, // far edge
        {WM_MOUSEMOVE, 3, 20, "mouse 0,40 kind 0 button 0 wheel 0; "},       // left bar
        {WM_XBUTTONDOWN, 20, 20, ""},
    };
    for (const auto &row : rows) {
        CAPTURE(row.message);
        SendMessageA(hwnd, row.message, 0, point(row.x, row.y));
        CHECK(take_sent() == row.sent);
    }
    close_window();
}

TEST_CASE("the left button captures the mouse until it comes up")
{
    HWND hwnd = open_window(400, 300);
    UpdateWindow(hwnd);
    SendMessageA(hwnd, WM_LBUTTONDOWN, MK_LBUTTON, point(7, 8));
    CHECK(GetCapture() == hwnd);
    CHECK(take_sent() == "mouse 7,8 kind 1 button 0 wheel 0; ");
    // Released left of and above the window.
    SendMessageA(hwnd, WM_LBUTTONUP, 0, point(-50, -3));
    CHECK(GetCapture() == nullptr);
    std::string sent = take_sent();
    CHECK(sent == "mouse 0,0 kind 2 button 0 wheel 0; ");
    SendMessageA(hwnd, WM_RBUTTONDOWN, 0, point(7, 8));
    CHECK(GetCapture() == nullptr);
    close_window();
}

TEST_CASE("the wheel reports a screen point and a signed delta")
{
    HWND hwnd = open_window(400, 300);
    UpdateWindow(hwnd);
    POINT origin = {0, 0};
    ClientToScreen(hwnd, &origin);
    CHECK(origin.y > 0); // a title bar: screen and client points differ
    LPARAM at = point(origin.x + 30, origin.y + 40);
    SendMessageA(hwnd, WM_MOUSEWHEEL, MAKEWPARAM(0, 120), at);
    SendMessageA(hwnd, WM_MOUSEWHEEL, MAKEWPARAM(MK_LBUTTON, (uint16_t)-240), at);
    CHECK(take_sent() == "mouse 30,40 kind 3 button 0 wheel 120; "
                         "mouse 30,40 kind 3 button 0 wheel -240; ");
    close_window();
}

TEST_CASE("keys go to the host, system keys no further")
{
    HWND hwnd = open_window(400, 300);
    UpdateWindow(hwnd);
    CHECK(SendMessageA(hwnd, WM_KEYDOWN, 'Q', 0x00100001) == 0);
    CHECK(SendMessageA(hwnd, WM_KEYDOWN, 'Q', 0x40100001) == 0); // repeated
    CHECK(SendMessageA(hwnd, WM_KEYUP, 'Q', 0xC0100001) == 0);
    CHECK(take_sent() == "key 010051; key 010051; key 000051; ");
    // Alt+F4, F10, Alt+Space: with the system's own handling, the first closes.
    CHECK(SendMessageA(hwnd, WM_SYSKEYDOWN, VK_MENU, 0x20380001) == 0);
    CHECK(SendMessageA(hwnd, WM_SYSKEYDOWN, VK_F4, 0x203E0001) == 0);
    CHECK(SendMessageA(hwnd, WM_SYSKEYUP, VK_F4, 0xE03E0001) == 0);
    CHECK(SendMessageA(hwnd, WM_SYSKEYDOWN, VK_SPACE, 0x20390001) == 0);
    CHECK(SendMessageA(hwnd, WM_SYSCHAR, ' ', 0x20390001) == 0);
    CHECK(SendMessageA(hwnd, WM_SYSKEYUP, VK_SPACE, 0xE0390001) == 0);
    CHECK(SendMessageA(hwnd, WM_KEYUP, VK_MENU, 0xC0380001) == 0);
    CHECK(SendMessageA(hwnd, WM_SYSKEYDOWN, VK_F10, 0x00440001) == 0);
    CHECK(SendMessageA(hwnd, WM_SYSKEYUP, VK_F10, 0xC0440001) == 0);
    CHECK(take_sent() == "key 010012; key 010073; key 000073; key 010020; key 000020; "
                         "key 000012; key 010079; key 000079; ");
    // Only the low 16 bits are the key.
    SendMessageA(hwnd, WM_KEYDOWN, 0xABCD0041, 0);
    CHECK(take_sent() == "key 010041; ");
    SendMessageA(hwnd, WM_CHAR, 'x', 0);
    CHECK(take_sent() == "");
    MSG message;
    CHECK_FALSE(PeekMessageA(&message, nullptr, WM_CLOSE, WM_CLOSE, PM_REMOVE));
    CHECK_FALSE(PeekMessageA(&message, nullptr, WM_SYSCOMMAND, WM_SYSCOMMAND, PM_REMOVE));
    CHECK(IsWindow(hwnd));
    close_window();
}

TEST_CASE("input that cannot be sent leaves the window as it is")
{
    HWND hwnd = open_window(400, 300);
    UpdateWindow(hwnd);
    memory_send_fails = true;
    SendMessageA(hwnd, WM_KEYDOWN, 'A', 0);
    SendMessageA(hwnd, WM_MOUSEMOVE, 0, point(5, 5));
    SendMessageA(hwnd, WM_KEYUP, 'A', 0);
    CHECK(take_sent() == "key 010041; mouse 5,5 kind 0 button 0 wheel 0; key 000041; ");
    CHECK(IsWindow(hwnd));
    CHECK(session_aborts == 0);
    MSG message;
    CHECK_FALSE(PeekMessageA(&message, nullptr, WM_CLOSE, WM_CLOSE, PM_REMOVE));
    close_window();
}

TEST_CASE("losing the focus releases the keys that are down and no others")
{
    HWND hwnd = open_window(400, 300);
    UpdateWindow(hwnd);
    SendMessageA(hwnd, WM_SYSKEYDOWN, VK_MENU, 0);
    SendMessageA(hwnd, WM_SYSKEYDOWN, VK_TAB, 0);
    SendMessageA(hwnd, WM_KEYDOWN, 'A', 0);
    SendMessageA(hwnd, WM_KEYUP, 'A', 0);
    SendMessageA(hwnd, WM_KEYUP, 'B', 0);
    take_sent();
    SendMessageA(hwnd, WM_KILLFOCUS, 0, 0);
    CHECK(take_sent() == "key 000009; key 000012; ");
    SendMessageA(hwnd, WM_KILLFOCUS, 0, 0);
    CHECK(take_sent() == "");
    close_window();
}

TEST_CASE("the title shows what came since the title before")
{
    HWND hwnd = open_window(400, 300);
    UpdateWindow(hwnd);
    statistics.stat_frames = 30;
    statistics.stat_bytes = 2097152;
    statistics.stat_hits = 4;
    statistics.stat_misses = 1;
    CHECK(SendMessageA(hwnd, WM_TIMER, 1, 0) == 0);
    CHECK(title_of(hwnd) == "qv - OFFICE  400x300  30 fps  2048 KB/s  cache hits 4  misses 1");
    text_active(true);
    statistics.stat_frames = 31;
    SendMessageA(hwnd, WM_TIMER, 1, 0);
    CHECK(title_of(hwnd) ==
          "qv - OFFICE  400x300  1 fps  0 KB/s  cache hits 4  misses 1  [text layer]");
    text_active(false);
    statistics.stat_frames = 50;
    CHECK(SendMessageA(hwnd, WM_TIMER, 2, 0) == 0);
    CHECK(SendMessageA(hwnd, WM_TIMER, 99, 0) == 0);
    CHECK(title_of(hwnd) ==
          "qv - OFFICE  400x300  1 fps  0 KB/s  cache hits 4  misses 1  [text layer]");
    close_window();
}

TEST_CASE("the title follows the clock by itself")
{
    HWND hwnd = open_window(400, 300);
    MSG message;
    while (title_of(hwnd) == "OFFICE" && GetMessageA(&message, nullptr, 0, 0) > 0)
        DispatchMessageA(&message);
    CHECK(title_of(hwnd).rfind("qv - OFFICE  400x300  0 fps", 0) == 0);
    close_window();
}

TEST_CASE("a flood of repaint requests leaves room for the request to close")
{
    HWND hwnd = open_window(400, 300);
    UpdateWindow(hwnd);
    for (int i = 0; i < 20000; i++) // a message queue takes 10000
        viewer_window_post_repaint();
    MSG message;
    int requests = 0;
    while (PeekMessageA(&message, hwnd, WM_USER, WM_USER, PM_REMOVE)) {
        requests++;
        DispatchMessageA(&message);
    }
    CHECK(requests == 1);

    // Once it was answered the next one comes through.
    dirty(0, 0, 64, 64);
    viewer_window_post_repaint();
    REQUIRE(PeekMessageA(&message, hwnd, WM_USER, WM_USER, PM_REMOVE));
    CHECK(message.wParam == 0);
    CHECK(message.lParam == 0);
    DispatchMessageA(&message);
    CHECK(GetUpdateRect(hwnd, nullptr, FALSE));
    close_window();
}

// Holds the frame lock, as the receive thread does while it sends to a host that does not
// read, until the connection is aborted.
static std::atomic<bool> holding;

static void hold_until_aborted(void *)
{
    lock_enter(&frame_lock);
    holding = true;
    while (session_aborts == 0)
        Sleep(1);
    lock_leave(&frame_lock);
}

TEST_CASE("closing aborts the connection before it waits for the frame lock")
{
    for (bool close_box : {true, false}) {
        CAPTURE(close_box);
        HWND hwnd = open_window(400, 300);
        tile_cache_open();
        UpdateWindow(hwnd);
        holding = false;
        thread *receiver = thread_start(hold_until_aborted, nullptr);
        REQUIRE(receiver);
        while (!holding)
            Sleep(1);
        if (close_box)
            SendMessageA(hwnd, WM_SYSCOMMAND, SC_CLOSE, 0);
        else
            DestroyWindow(hwnd);
        viewer_window_run();
        CHECK(session_aborts > 0);
        CHECK(thread_join(receiver, THREAD_WAIT_FOREVER));
        CHECK_FALSE(IsWindow(hwnd));
        lock_enter(&frame_lock);
        bool enabled = tile_cache.cache_enabled;
        lock_leave(&frame_lock);
        CHECK_FALSE(enabled);

        // Nobody to post to any more.
        viewer_window_post_repaint();
        viewer_window_post_close();
        MSG message;
        CHECK_FALSE(PeekMessageA(&message, nullptr, WM_CLOSE, WM_CLOSE, PM_REMOVE));
        frame_close();
    }
}

static void store_tile(uint64_t hash)
{
    static uint8_t tile[TILE_BYTES];
    memset(tile, (int)hash, sizeof tile);
    lock_enter(&frame_lock);
    tile_cache_insert(hash, tile, TILE_ROW_BYTES);
    lock_leave(&frame_lock);
}

// The hash that the file has in way a of its set, 0 when there is no file.
static uint64_t saved_hash(uint64_t hash)
{
    return load_le64(
        disk_memory.files[DISK_MEMORY_PATH].part(16 + hash % 4096 * 2 * 8, 8).data());
}

TEST_CASE("the cache is saved by timer 2, and when the window is destroyed")
{
    disk_memory_reset();
    HWND hwnd = open_window(400, 300);
    tile_cache_open();
    SendMessageA(hwnd, WM_TIMER, 2, 0); // nothing to save
    store_tile(11);
    SendMessageA(hwnd, WM_TIMER, 1, 0); // the title's
    Sleep(50);
    CHECK(disk_memory.created == 0);
    SendMessageA(hwnd, WM_TIMER, 2, 0);
    for (int i = 0; i < 6000 && disk_memory.replaced == 0; i++)
        Sleep(10);
    CHECK(disk_memory.replaced == 1);
    CHECK(saved_hash(11) == 11);

    store_tile(12);
    close_window();
    CHECK(disk_memory.replaced == 2);
    CHECK(saved_hash(11) == 11);
    CHECK(saved_hash(12) == 12);

    // Nothing came: not again.
    hwnd = open_window(400, 300);
    tile_cache_open();
    close_window();
    CHECK(disk_memory.replaced == 2);
    disk_memory_reset(true);
}

TEST_CASE("a save that runs when the window is destroyed ends before the last one begins")
{
    disk_memory_reset();
    HWND hwnd = open_window(400, 300);
    tile_cache_open();
    for (uint64_t hash = 1; hash <= 100; hash++)
        store_tile(hash);
    std::atomic<uint32_t> writes = 0;
    disk_memory.hook = [&](const disk_memory_call &call) {
        // Slow until the window is being destroyed, which aborts the connection.
        if (std::string(call.what) == "write" && ++writes == 10)
            while (session_aborts == 0)
                Sleep(1);
        return true;
    };
    SendMessageA(hwnd, WM_TIMER, 2, 0);
    while (writes < 10)
        Sleep(1);
    store_tile(200);
    close_window();
    disk_memory.hook = nullptr;
    CHECK(disk_memory.files.size() == 1);
    CHECK(saved_hash(100) == 100);
    CHECK(saved_hash(200) == 200);
    disk_memory_reset(true);
}

// Stands before the window's own procedure and notes how it loses the focus.
static WNDPROC own_procedure;
static int focus_losses, aborts_before_focus_loss;

static LRESULT CALLBACK note_focus_loss(HWND hwnd, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == WM_KILLFOCUS) {
        focus_losses++;
        aborts_before_focus_loss = session_aborts;
    }
    return CallWindowProcA(own_procedure, hwnd, message, wparam, lparam);
}

TEST_CASE("a window that closes with a key down does not wait to send its release")
{
    HWND hwnd = open_window(400, 300);
    UpdateWindow(hwnd);
    SetFocus(hwnd);
    REQUIRE(GetFocus() == hwnd);
    SendMessageA(hwnd, WM_KEYDOWN, 'A', 0);
    focus_losses = aborts_before_focus_loss = 0;
    own_procedure = (WNDPROC)SetWindowLongPtrA(hwnd, GWLP_WNDPROC, (LONG_PTR)note_focus_loss);
    close_window();
    REQUIRE(focus_losses == 1);
    CHECK(aborts_before_focus_loss > 0);
}

TEST_CASE("a second session starts afresh")
{
    HWND hwnd = open_window(400, 300);
    lock_enter(&frame_lock);
    memset(frame.frame_pixels, 0xFF, 448 * 320 * PIXEL_BYTES);
    lock_leave(&frame_lock);
    UpdateWindow(hwnd);
    HDC first = GetDC(hwnd);
    CHECK(GetPixel(first, 200, 150) == RGB(255, 255, 255));
    ReleaseDC(hwnd, first);
    SendMessageA(hwnd, WM_KEYDOWN, 'A', 0);
    statistics.stat_frames = 100;
    SendMessageA(hwnd, WM_TIMER, 1, 0);
    viewer_window_post_repaint(); // still under way when the window goes
    DestroyWindow(hwnd);
    viewer_window_run();
    frame_close();

    hwnd = open_window(400, 300);
    SendMessageA(hwnd, WM_MOUSEMOVE, 0, point(5, 5)); // no paint yet
    SendMessageA(hwnd, WM_KILLFOCUS, 0, 0);           // the key was the other session's
    CHECK(take_sent() == "");
    UpdateWindow(hwnd);
    HDC dc = GetDC(hwnd);
    CHECK(GetPixel(dc, 200, 150) == RGB(0, 0, 0)); // the new picture, not the old buffer
    ReleaseDC(hwnd, dc);
    statistics.stat_frames = 7;
    SendMessageA(hwnd, WM_TIMER, 1, 0);
    CHECK(title_of(hwnd) == "qv - OFFICE  400x300  7 fps  0 KB/s  cache hits 0  misses 0");
    viewer_window_post_repaint();
    MSG message;
    CHECK(PeekMessageA(&message, hwnd, WM_USER, WM_USER, PM_REMOVE));
    close_window();
}
