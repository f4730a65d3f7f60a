// Reading a console of another process, and coming away unharmed.
//
// The program starts itself twice: as a console with a window of the right class, and as a
// process without a console that reads it. Each is told by its environment what it is. The
// reader ends with a status of its own, because one that Ctrl+C ended may end with 0.
//
// Windows only
#include "protocol/win32.h"

#include "host/console.h"
#include "tests/test.h"

#include <initializer_list>
#include <stdlib.h>
#include <string.h>

using namespace host;

constexpr char ROLE[] = "QV_CONSOLE_TEST_ROLE";
constexpr SHORT COLS = 40, ROWS = 12;
constexpr DWORD READER_DONE = 77;
constexpr ULONGLONG LIMIT_MS = 60000;

static HWND open_window(const char *class_name)
{
    WNDCLASSA window_class = {};
    window_class.lpfnWndProc = DefWindowProcA;
    window_class.hInstance = GetModuleHandleA(nullptr);
    window_class.lpszClassName = "ConsoleWindowClass";
    RegisterClassA(&window_class);
    HWND window = CreateWindowA(class_name, "front", WS_POPUP | WS_VISIBLE, 30, 40, 320, 192,
                                nullptr, nullptr, window_class.hInstance, nullptr);
    SetForegroundWindow(window);
    return window;
}

static BOOL WINAPI ignore_keys(DWORD)
{
    return TRUE;
}

// Presses Ctrl+C all the time, until it is ended.
[[noreturn]] static void be_console()
{
    HANDLE output =
        CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    const SMALL_RECT least = {0, 0, 0, 0}, shown = {0, 3, COLS - 1, 3 + ROWS - 1};
    SetConsoleCtrlHandler(ignore_keys, TRUE);
    SetConsoleWindowInfo(output, TRUE, &least);
    SetConsoleScreenBufferSize(output, {COLS, ROWS + 5});
    SetConsoleWindowInfo(output, TRUE, &shown); // scrolled by three rows
    DWORD written;
    for (SHORT row = 0; row < ROWS + 5; row++) {
        const char text[] = {(char)('A' + row), 'x', 0};
        WriteConsoleOutputCharacterA(output, text, 2, {0, row}, &written);
        FillConsoleOutputAttribute(output, (WORD)(0x10 + row), 1, {0, row}, &written);
    }
    open_window("ConsoleWindowClass");
    const ULONGLONG start = GetTickCount64();
    while (GetTickCount64() - start < 2 * LIMIT_MS) {
        MSG message;
        while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageA(&message);
        GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
        GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, 0);
        Sleep(1);
    }
    ExitProcess(1);
}

// What is wrong with the console in front, as an exit status; 0: nothing is.
static DWORD read_console()
{
    console_view view;
    static console_cell cells[COLS * ROWS], beyond[COLS * ROWS];
    const ULONGLONG start = GetTickCount64();
    while (!console_attach(&view))
        if (GetTickCount64() - start > LIMIT_MS)
            return 2;
        else
            Sleep(5);
    bool whole = view.cols == COLS && view.rows == ROWS;
    bool read = whole && console_read(0, 5, cells) && console_read(5, 7, cells + 5 * COLS);
    bool outside = whole && console_read(ROWS, 10, beyond); // not so many rows are left
    console_detach();
    DWORD processes[4];
    if (!whole)
        return 3;
    if (!read || outside)
        return 4;
    if (view.left != 30 || view.top != 40 || view.right != 350 || view.bottom != 232)
        return 5;
    if (GetConsoleProcessList(processes, 4) != 0)
        return 6;
    for (int32_t row = 0; row < ROWS; row++)
        if (cells[row * COLS].character != 'A' + 3 + row ||
            (cells[row * COLS].attributes & 0xFF) != 0x13 + row ||
            cells[row * COLS + 1].character != 'x')
            return 7;
    return 0;
}

[[noreturn]] static void be_reader()
{
    FreeConsole();
    for (int i = 0; i < 500; i++) {
        DWORD wrong = read_console();
        if (wrong != 0)
            ExitProcess(wrong);
        Sleep(1);
    }
    ExitProcess(READER_DONE);
}

static HANDLE start(const char *role, DWORD flags)
{
    static char command[32768];
    strncpy(command, GetCommandLineA(), sizeof command - 1);
    SetEnvironmentVariableA(ROLE, role);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    REQUIRE(CreateProcessA(nullptr, command, nullptr, nullptr, FALSE, flags, nullptr, nullptr,
                           &startup, &process));
    SetEnvironmentVariableA(ROLE, nullptr);
    return process.hProcess;
}

TEST_CASE("the console in front is read whole, and its keys do not reach the reader")
{
    char role[16] = {};
    GetEnvironmentVariableA(ROLE, role, sizeof role);
    if (strcmp(role, "console") == 0)
        be_console();
    if (strcmp(role, "reader") == 0)
        be_reader();

    HANDLE console = start("console", CREATE_NO_WINDOW);
    HANDLE reader = start("reader", DETACHED_PROCESS);
    CHECK(WaitForSingleObject(reader, 2 * LIMIT_MS) == WAIT_OBJECT_0);
    DWORD status = 0;
    GetExitCodeProcess(reader, &status);
    CHECK(status == READER_DONE);
    TerminateProcess(reader, 1);
    TerminateProcess(console, 1);
    WaitForSingleObject(console, INFINITE);
}

TEST_CASE("a window in front that is no console, or whose process has none, leaves nothing")
{
    DWORD processes[4];
    const DWORD before = GetConsoleProcessList(processes, 4);
    // The second has the name, but is this process's: it has no other console to attach to.
    for (const char *name : {"STATIC", "ConsoleWindowClass"}) {
        CAPTURE(name);
        HWND window = open_window(name);
        REQUIRE(window);
        REQUIRE(GetForegroundWindow() == window);
        console_view view;
        for (int i = 0; i < 100; i++)
            CHECK_FALSE(console_attach(&view));
        CHECK(GetConsoleProcessList(processes, 4) == before);
        DestroyWindow(window);
    }
}
