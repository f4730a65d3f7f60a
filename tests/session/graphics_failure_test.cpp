// Windows only
// Fakes: viewer_channel_memory window_posts
//
// Screen capture and painting when the system has no more graphics objects to give: what was
// made is given back, nothing is drawn, and the next try works.
//
// The Windows edges call through the import table's entries. Those that make, select and
// release objects are this program's own, which count and, at the test's word, refuse.
#include "host/capture_gdi.h"
#include "protocol/win32.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/view_paint.h"

#include <string.h>

static struct {
    int calls;   // that can fail, since the plan was made
    int refused; // the number of the call to refuse; 0: none
    int alive;   // objects and screen contexts that were not given back
} script;

static void plan(int refused)
{
    script.calls = 0;
    script.refused = refused;
}

template <class F> static F real(const char *library, const char *name)
{
    void *function = (void *)GetProcAddress(GetModuleHandleA(library), name);
    REQUIRE(function != nullptr);
    return (F)function;
}

static bool refuses()
{
    return ++script.calls == script.refused;
}

template <class T> static T made(T object)
{
    script.alive += object != nullptr;
    return object;
}

// For each function its type, the real one, and ours behind the import table's entry.
#define IMPORT(library, result, name, parameters, ...)                                         \
    static result WINAPI our_##name parameters;                                                \
    extern "C" {                                                                               \
    extern result(WINAPI *__imp_##name) parameters;                                            \
    result(WINAPI *__imp_##name) parameters = our_##name;                                      \
    }                                                                                          \
    static result WINAPI real_##name parameters                                                \
    {                                                                                          \
        static auto function = real<result(WINAPI *) parameters>(library, #name);              \
        return function(__VA_ARGS__);                                                          \
    }                                                                                          \
    static result WINAPI our_##name parameters

IMPORT("user32.dll", HDC, GetDC, (HWND window), window)
{
    return refuses() ? nullptr : made(real_GetDC(window));
}

IMPORT("user32.dll", int, ReleaseDC, (HWND window, HDC dc), window, dc)
{
    script.alive--;
    return real_ReleaseDC(window, dc);
}

IMPORT("gdi32.dll", HDC, CreateCompatibleDC, (HDC dc), dc)
{
    return refuses() ? nullptr : made(real_CreateCompatibleDC(dc));
}

IMPORT("gdi32.dll", HBITMAP, CreateCompatibleBitmap, (HDC dc, int w, int h), dc, w, h)
{
    return refuses() ? nullptr : made(real_CreateCompatibleBitmap(dc, w, h));
}

IMPORT("gdi32.dll", HBITMAP, CreateDIBSection,
       (HDC dc, const BITMAPINFO *info, UINT usage, void **bits, HANDLE section, DWORD offset),
       dc, info, usage, bits, section, offset)
{
    return refuses() ? nullptr
                     : made(real_CreateDIBSection(dc, info, usage, bits, section, offset));
}

IMPORT("gdi32.dll", HGDIOBJ, SelectObject, (HDC dc, HGDIOBJ object), dc, object)
{
    return refuses() ? nullptr : real_SelectObject(dc, object);
}

IMPORT("gdi32.dll", BOOL, DeleteObject, (HGDIOBJ object), object)
{
    BOOL deleted = real_DeleteObject(object);
    script.alive -= deleted != FALSE;
    return deleted;
}

IMPORT("gdi32.dll", BOOL, DeleteDC, (HDC dc), dc)
{
    BOOL deleted = real_DeleteDC(dc);
    script.alive -= deleted != FALSE;
    return deleted;
}

TEST_CASE("a capture bitmap that is made in part is given back")
{
    plan(0);
    REQUIRE(host::gdi_open(64, 64));
    CHECK(script.calls == 4); // screen context, memory context, bitmap, its selection
    CHECK(script.alive == 2); // memory context and bitmap
    for (int nth = 1; nth <= 4; nth++) {
        CAPTURE(nth);
        // The first call puts back what the bitmap of before had replaced.
        plan(nth + 1);
        CHECK_FALSE(host::gdi_open(64, 64));
        CHECK(script.alive == 0);
        CHECK_FALSE(host::gdi_copy(64, 64));
        CHECK(script.alive == 0);
        plan(0);
        CHECK(host::gdi_open(64, 64));
        CHECK(script.alive == 2);
    }
}

TEST_CASE("a screen that cannot be reached is not copied")
{
    plan(0);
    REQUIRE(host::gdi_open(64, 64));
    plan(1);
    CHECK_FALSE(host::gdi_copy(64, 64));
    CHECK(script.calls == 1);
    CHECK(script.alive == 2);
}

// Paints into a back buffer of this size, as the window does, and returns the pixel in its
// middle, or 1 when there was nothing to draw into.
static uint32_t paint(int32_t size, uint32_t pixel)
{
    lock_enter(&viewer::frame_lock);
    for (int32_t i = 0; i < 64 * 64; i++)
        memcpy(viewer::frame.frame_pixels + i * 4, &pixel, 4);
    lock_leave(&viewer::frame_lock);
    static viewer::view_geometry view;
    HDC screen = real_GetDC(nullptr);
    viewer::frame_rect redraw = {0, 0, size, size};
    HDC dc = (HDC)viewer::view_paint(screen, size, size, &view, &redraw);
    uint32_t shown = dc ? (uint32_t)GetPixel(dc, size / 2, size / 2) : 1;
    real_ReleaseDC(nullptr, screen);
    return shown;
}

TEST_CASE("a back buffer that cannot be had is left out, and made by the next paint")
{
    CHECK_FALSE(host::gdi_open(0, 0)); // gives back what the cases before opened
    REQUIRE(viewer::frame_open(64, 64));
    int32_t size = 64;
    int before = script.alive;
    for (int nth = 1; nth <= 3; nth++) { // the context (the first time), bitmap, selection
        CAPTURE(nth);
        size++; // needs a new bitmap
        plan(nth);
        CHECK(paint(size, 0x00FFFFFF) == 1);
        CHECK(script.calls == nth);
        plan(0);
        CHECK(paint(size, 0x00FFFFFF) == 0x00FFFFFF);
        CHECK(script.alive == before + 2);
        CHECK(paint(size, 0x00000000) == 0);
    }
    viewer::frame_close();
}
