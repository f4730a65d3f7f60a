// The visible windows, from the system.
//
// The window manager knows where a window's frame is really drawn (GetWindowRect adds the
// invisible border that takes the mouse) and which windows it hides although they are
// visible: on other virtual desktops, and of suspended applications. Where it cannot be
// asked, nothing is hidden and GetWindowRect has to do.
//
// The title of another process's window is the system's own copy, so a program that hangs
// does not hold the host up.
#include "host/window_list.h"

#include "protocol/system_library.h"
#include "protocol/win32.h"

#include <dwmapi.h>

namespace host
{

using dwm_get_function = HRESULT(WINAPI *)(HWND, DWORD, PVOID, DWORD);

static HRESULT window_attribute(HWND window, DWORD attribute, void *value, DWORD size)
{
    static const dwm_get_function get =
        (dwm_get_function)system_library_function(L"dwmapi.dll", "DwmGetWindowAttribute");
    return get ? get(window, attribute, value, size) : E_NOTIMPL;
}

static bool is_cloaked(HWND window)
{
    DWORD cloaked = 0;
    return SUCCEEDED(window_attribute(window, DWMWA_CLOAKED, &cloaked, sizeof cloaked)) &&
           cloaked != 0;
}

static RECT frame_bounds(HWND window)
{
    RECT bounds = {};
    if (FAILED(window_attribute(window, DWMWA_EXTENDED_FRAME_BOUNDS, &bounds, sizeof bounds))) {
        bounds = {};
        GetWindowRect(window, &bounds);
    }
    return bounds;
}

static BOOL CALLBACK window_list_add(HWND window, LPARAM foreground)
{
    char title[WINDOW_TITLE_MAX + 1];
    if (!IsWindowVisible(window) || GetWindowTextA(window, title, sizeof title) <= 0 ||
        is_cloaked(window))
        return TRUE;
    const RECT bounds = frame_bounds(window);
    const bool in_front = window == (HWND)foreground;
    return window_list_append({.handle = (uint32_t)(uintptr_t)window,
                               .x = (int32_t)bounds.left,
                               .y = (int32_t)bounds.top,
                               .width = (int32_t)(bounds.right - bounds.left),
                               .height = (int32_t)(bounds.bottom - bounds.top),
                               .flags = (uint8_t)((in_front ? WINDOW_FOREGROUND : 0) |
                                                  (IsIconic(window) ? WINDOW_MINIMISED : 0))},
                              title);
}

void window_list_enumerate()
{
    EnumWindows(window_list_add, (LPARAM)GetForegroundWindow());
}

} // namespace host
