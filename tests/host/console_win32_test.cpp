// What is no console is not attached to.
//
// Windows only
#include "protocol/win32.h"

#include "host/console.h"
#include "tests/test.h"

#include <initializer_list>

using namespace host;

static DWORD attached_consoles()
{
    DWORD processes[4];
    return GetConsoleProcessList(processes, 4);
}

TEST_CASE("a window in front that is no console, or whose process has none, leaves nothing")
{
    const DWORD before = attached_consoles();
    WNDCLASSA window_class = {};
    window_class.lpfnWndProc = DefWindowProcA;
    window_class.hInstance = GetModuleHandleA(nullptr);
    window_class.lpszClassName = "ConsoleWindowClass";
    REQUIRE(RegisterClassA(&window_class) != 0);
    // The second has the name, but is this process's: it has no other console to attach to.
    for (const char *name : {"STATIC", "ConsoleWindowClass"}) {
        CAPTURE(name);
        HWND window = CreateWindowA(name, "front", WS_POPUP | WS_VISIBLE, 0, 0, 100, 100,
                                    nullptr, nullptr, window_class.hInstance, nullptr);
        REQUIRE(window);
        SetForegroundWindow(window);
        REQUIRE(GetForegroundWindow() == window);
        console_view view;
        for (int i = 0; i < 100; i++)
            CHECK_FALSE(console_attach(&view));
        CHECK(attached_consoles() == before);
        DestroyWindow(window);
    }
}
