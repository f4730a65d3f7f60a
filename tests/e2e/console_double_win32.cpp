// A console in a window, as Windows has one and Wine does not.
//
//   console_double TITLE X Y COLUMNS ROWS LOGFILE
//
// Wine's console windows have a class of their own and belong to a process that is not one of
// the console's. So this program starts itself again with a console and no window for it, and
// the second one opens a window of the right class, whose client area has cells of 8 x 16
// pixels and stands at X, Y. It paints what the console's buffer holds.
//
// Messages to the window:
//   WM_APP      writes page WPARAM into the console
//   WM_APP + 1  sends Ctrl+C and Ctrl+Break to the console's programs, WPARAM times each
//   WM_APP + 2  looks WPARAM times, 2 ms apart, which programs the console has
//   WM_APP + 3  changes the row WPARAM
// What the second and third found is a line of the log file each:
//   keys N seen M       M by this program itself, which is one of the console's
//   alone N others M

#include "protocol/win32.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace
{

constexpr UINT APP_PAGE = WM_APP;
constexpr UINT APP_KEYS = WM_APP + 1;
constexpr UINT APP_LOOK = WM_APP + 2;
constexpr UINT APP_ROW = WM_APP + 3;
constexpr int CELL_WIDTH = 8;
constexpr int CELL_HEIGHT = 16;
constexpr char CHILD_MARK[] = "--with-console";

constexpr COLORREF PALETTE[16] = {
    RGB(12, 12, 12),    RGB(0, 55, 218),   RGB(19, 161, 14),   RGB(58, 150, 221),
    RGB(197, 15, 31),   RGB(136, 23, 152), RGB(193, 156, 0),   RGB(204, 204, 204),
    RGB(118, 118, 118), RGB(59, 120, 255), RGB(22, 198, 12),   RGB(97, 214, 214),
    RGB(231, 72, 86),   RGB(180, 0, 158),  RGB(249, 241, 165), RGB(242, 242, 242),
};

struct page_line {
    WORD attributes;
    const char *text;
};
constexpr page_line PAGE[] = {
    {0x07, "C:\\work>dir"},
    {0x07, ""},
    {0x0B, " Directory of C:\\work"},
    {0x07, ""},
    {0x07, "2026-11-02  09:14    <DIR>          ."},
    {0x07, "2026-11-02  09:14    <DIR>          .."},
    {0x07, "2026-11-02  09:20             4,817 notes.txt"},
    {0x07, "2026-11-03  17:41           128,512 table.csv"},
    {0x0A, "2026-11-05  08:02                96 start.cmd"},
    {0x07, "               3 File(s)        133,425 bytes"},
    {0x07, ""},
    {0x07, "C:\\work>start.cmd"},
    {0x0E, "warning: 2 rows of table.csv have no date"},
    {0x4F, "error: the printer is out of paper"},
    {0x1F, "A status line, white on blue: {[(|)]} il1 O0 #$%&@"},
    {0x07, ""},
    {0x07, "C:\\work>_"},
};

HANDLE output;
FILE *log_file;
SHORT columns, rows;

void write_line(SHORT row, WORD attributes, const char *text)
{
    DWORD written;
    const COORD at = {0, row};
    FillConsoleOutputCharacterA(output, ' ', (DWORD)columns, at, &written);
    FillConsoleOutputAttribute(output, attributes, (DWORD)columns, at, &written);
    WriteConsoleOutputCharacterA(output, text, (DWORD)strlen(text), at, &written);
}

void write_page(unsigned page)
{
    for (SHORT row = 0; row < rows; row++)
        write_line(row, 0x07, "");
    char title[64];
    snprintf(title, sizeof title, "This is page %u.", page);
    write_line(0, 0x0F, title);
    SHORT row = 2;
    for (const page_line &line : PAGE)
        if (row < rows)
            write_line(row++, line.attributes, line.text);
}

void paint(HWND window)
{
    PAINTSTRUCT ps;
    HDC dc = BeginPaint(window, &ps);
    HFONT font = CreateFontA(CELL_HEIGHT, CELL_WIDTH, 0, 0, FW_NORMAL, 0, 0, 0, ANSI_CHARSET, 0,
                             0, 0, FIXED_PITCH, "Consolas");
    HGDIOBJ old = SelectObject(dc, font);
    static CHAR_INFO cells[512];
    for (SHORT row = 0; row < rows; row++) {
        SMALL_RECT region = {0, row, (SHORT)(columns - 1), row};
        ReadConsoleOutputW(output, cells, {columns, 1}, {0, 0}, &region);
        for (SHORT col = 0; col < columns; col++) {
            const RECT cell = {col * CELL_WIDTH, row * CELL_HEIGHT, (col + 1) * CELL_WIDTH,
                               (row + 1) * CELL_HEIGHT};
            SetTextColor(dc, PALETTE[cells[col].Attributes & 15]);
            SetBkColor(dc, PALETTE[cells[col].Attributes >> 4 & 15]);
            ExtTextOutW(dc, cell.left, cell.top, ETO_OPAQUE | ETO_CLIPPED, &cell,
                        &cells[col].Char.UnicodeChar, 1, nullptr);
        }
    }
    SelectObject(dc, old);
    DeleteObject(font);
    EndPaint(window, &ps);
}

volatile LONG keys_seen;

BOOL WINAPI ignore_keys(DWORD)
{
    InterlockedIncrement(&keys_seen);
    return TRUE;
}

// On threads of their own, so that the window goes on.
DWORD WINAPI press_keys(void *times)
{
    for (uintptr_t i = 0; i < (uintptr_t)times; i++) {
        GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
        GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, 0);
        Sleep((DWORD)(i % 3));
    }
    fprintf(log_file, "keys %u seen %ld\n", (unsigned)(uintptr_t)times, keys_seen);
    return 0;
}

DWORD WINAPI look(void *times)
{
    unsigned alone = 0, others = 0;
    for (uintptr_t i = 0; i < (uintptr_t)times; i++) {
        DWORD processes[16];
        (GetConsoleProcessList(processes, 16) > 1 ? others : alone)++;
        Sleep(2);
    }
    fprintf(log_file, "alone %u others %u\n", alone, others);
    return 0;
}

void start_thread(LPTHREAD_START_ROUTINE routine, WPARAM times)
{
    CloseHandle(CreateThread(nullptr, 0, routine, (void *)times, 0, nullptr));
}

LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_PAINT:
        paint(window);
        return 0;
    case WM_ERASEBKGND:
        return 1;
    case APP_PAGE:
        write_page((unsigned)wparam);
        InvalidateRect(window, nullptr, FALSE);
        return 0;
    case APP_ROW:
        write_line((SHORT)wparam, 0x2F, "This row was written later.");
        InvalidateRect(window, nullptr, FALSE);
        return 0;
    case APP_KEYS:
        start_thread(press_keys, wparam);
        return 0;
    case APP_LOOK:
        start_thread(look, wparam);
        return 0;
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    }
    return DefWindowProcA(window, message, wparam, lparam);
}

int start_with_console()
{
    static char command[32768];
    snprintf(command, sizeof command, "%s %s", GetCommandLineA(), CHILD_MARK);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process;
    if (!CreateProcessA(nullptr, command, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                        nullptr, &startup, &process))
        return 1;
    DWORD status = 1;
    WaitForSingleObject(process.hProcess, INFINITE);
    GetExitCodeProcess(process.hProcess, &status);
    return (int)status;
}

bool open_console()
{
    output =
        CreateFileA("CONOUT$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    const SMALL_RECT least = {0, 0, 0, 0};
    const SMALL_RECT shown = {0, 0, (SHORT)(columns - 1), (SHORT)(rows - 1)};
    return output != INVALID_HANDLE_VALUE && SetConsoleWindowInfo(output, TRUE, &least) &&
           SetConsoleScreenBufferSize(output, {columns, rows}) &&
           SetConsoleWindowInfo(output, TRUE, &shown) &&
           SetConsoleCtrlHandler(ignore_keys, TRUE);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 7)
        return start_with_console();
    if (argc != 8 || strcmp(argv[7], CHILD_MARK) != 0)
        return 2;
    columns = (SHORT)atoi(argv[4]);
    rows = (SHORT)atoi(argv[5]);
    log_file = fopen(argv[6], "w");
    if (!log_file || !open_console())
        return 3;
    setvbuf(log_file, nullptr, _IONBF, 0);
    write_page(1);

    WNDCLASSA window_class = {};
    window_class.lpfnWndProc = window_proc;
    window_class.hInstance = GetModuleHandleA(nullptr);
    window_class.hCursor = LoadCursorA(nullptr, (LPCSTR)IDC_ARROW);
    window_class.lpszClassName = "ConsoleWindowClass";
    RegisterClassA(&window_class);
    RECT frame = {atoi(argv[2]), atoi(argv[3]), atoi(argv[2]) + columns * CELL_WIDTH,
                  atoi(argv[3]) + rows * CELL_HEIGHT};
    AdjustWindowRect(&frame, WS_OVERLAPPEDWINDOW, FALSE);
    HWND window = CreateWindowA("ConsoleWindowClass", argv[1], WS_OVERLAPPEDWINDOW, frame.left,
                                frame.top, frame.right - frame.left, frame.bottom - frame.top,
                                nullptr, nullptr, window_class.hInstance, nullptr);
    if (!window)
        return 4;
    ShowWindow(window, SW_SHOW);
    SetForegroundWindow(window);
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
    return 0;
}
