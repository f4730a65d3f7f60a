// Attaching to the console in front, and reading it.
//
// While the host is attached it is one of that console's programs: Ctrl+C and Ctrl+Break go
// to all of them, and closing the window ends all of them. The handler takes the first two,
// so that they never reach the host. It is set after each attach and each detach because
// both reset the list of handlers: a key that was pressed just before the detach may be
// delivered just after it.
//
// A console that closes (or a user who logs off, or the machine that shuts down) waits for
// the handler, for some seconds, before it ends what is attached. The handler comes on a
// thread of its own and waits in turn until the reading has detached.
#include "host/console.h"

#include "protocol/win32.h"

#include <atomic>
#include <string.h>

namespace host
{

constexpr int32_t DETACH_WAIT_MS = 2000; // a reading takes about 1

static_assert(sizeof(console_cell) == sizeof(CHAR_INFO));

// Owner: host server thread; the handler looks at the number only.
static struct {
    HANDLE output;
    SMALL_RECT shown;                    // of the screen buffer, inclusive
    std::atomic<uint32_t> attach_number; // odd while attached
} console = {INVALID_HANDLE_VALUE, {}, {}};

static BOOL WINAPI console_control(DWORD event)
{
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT)
        return TRUE;
    const uint32_t number = console.attach_number;
    if (number % 2 != 0)
        for (int32_t ms = 0; ms < DETACH_WAIT_MS && console.attach_number == number; ms++)
            Sleep(1);
    return TRUE;
}

// Some systems keep the list across attaching: take out before putting in, or it grows.
static void set_handler()
{
    SetConsoleCtrlHandler(console_control, FALSE);
    SetConsoleCtrlHandler(console_control, TRUE);
}

// The window in front, when it is a console's.
static HWND console_window()
{
    char name[64];
    HWND window = GetForegroundWindow();
    if (!window || GetClassNameA(window, name, sizeof name) == 0 ||
        strcmp(name, "ConsoleWindowClass") != 0)
        return nullptr;
    return window;
}

static bool client_area(HWND window, console_view *view)
{
    RECT client;
    POINT origin = {0, 0};
    if (!GetClientRect(window, &client) || !ClientToScreen(window, &origin))
        return false;
    view->left = (int32_t)origin.x;
    view->top = (int32_t)origin.y;
    view->right = (int32_t)(origin.x + client.right);
    view->bottom = (int32_t)(origin.y + client.bottom);
    return true;
}

static bool open_output(console_view *view)
{
    console.output =
        CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (console.output == INVALID_HANDLE_VALUE ||
        !GetConsoleScreenBufferInfo(console.output, &info))
        return false;
    console.shown = info.srWindow;
    view->cols = info.srWindow.Right - info.srWindow.Left + 1;
    view->rows = info.srWindow.Bottom - info.srWindow.Top + 1;
    return true;
}

bool console_attach(console_view *view)
{
    HWND window = console_window();
    DWORD pid = 0;
    if (!window || !client_area(window, view) || GetWindowThreadProcessId(window, &pid) == 0)
        return false;
    console.attach_number++;
    if (!AttachConsole(pid)) { // as it does while this process has a console of its own
        console.attach_number++;
        return false;
    }
    set_handler();
    if (open_output(view))
        return true;
    console_detach();
    return false;
}

bool console_read(int32_t first_row, int32_t rows, console_cell *cells)
{
    const SMALL_RECT wanted = {console.shown.Left, (SHORT)(console.shown.Top + first_row),
                               console.shown.Right,
                               (SHORT)(console.shown.Top + first_row + rows - 1)};
    const COORD size = {(SHORT)(wanted.Right - wanted.Left + 1), (SHORT)rows};
    SMALL_RECT got = wanted;
    // A buffer that became smaller since is read in part only.
    return ReadConsoleOutputW(console.output, (CHAR_INFO *)cells, size, {0, 0}, &got) &&
           memcmp(&got, &wanted, sizeof got) == 0;
}

void console_detach()
{
    if (console.output != INVALID_HANDLE_VALUE)
        CloseHandle(console.output);
    console.output = INVALID_HANDLE_VALUE;
    FreeConsole();
    set_handler();
    console.attach_number++;
}

} // namespace host
