// Asks Windows what a screenshot cannot tell: which windows stand where and what text they
// hold. Tests run it inside the Wine prefix that they ask about.
//
//   probe_tool stay                     keeps the desktop up: never ends
//   probe_tool claim NAME               owns the mutex of that name: never ends
//   probe_tool list                     every visible top-level window, one line each
//   probe_tool text TITLE [CLASS]       text of the window, or of its first child of CLASS
//   probe_tool controls TITLE           every control in the window: class, number, 1 if it can
//                                       be used, style (hexadecimal), place on the screen, text
//   probe_tool rows TITLE               the rows of the window's list view
//   probe_tool front                    class and title of the foreground window
//   probe_tool metrics                  width and height of the screen
//   probe_tool cursor                   position of the pointer
//   probe_tool pressed                  virtual-key codes that are down, mouse buttons included
//   probe_tool holds NAME               handles and private KiB of the process NAME.exe
//   probe_tool peaks NAME               the most KiB that the process NAME.exe had in memory,
//                                       and the most that it had committed
//   probe_tool place TITLE X Y W H      moves and sizes a window
//   probe_tool front TITLE              makes a window the foreground window
//   probe_tool post TITLE MSG WPARAM    posts a message with a number
//   probe_tool fill TITLE NUMBER TEXT   puts a text into the control of that number
//   probe_tool send TITLE MSG WPARAM    sends a message with a number; prints the answer
//   probe_tool bare COMMAND             runs a program without standard input, output and
//                                       error; ends with its exit status
//
// TITLE is the beginning of a window's title, or "class=" and the whole name of its class.
// Ends with 1 when there is no such window.

#include "protocol/win32.h"

#include <commctrl.h>
#include <psapi.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tlhelp32.h>

namespace
{

constexpr int TITLE_SIZE = 512;

constexpr char CLASS_PREFIX[] = "class=";

struct window_search {
    const char *title; // or nullptr: class_name counts
    const char *class_name;
    HWND found;
};

BOOL CALLBACK list_window(HWND window, LPARAM)
{
    if (!IsWindowVisible(window))
        return TRUE;
    char title[TITLE_SIZE] = {};
    char class_name[64] = {};
    RECT frame = {}, client = {};
    POINT origin = {};
    GetWindowTextA(window, title, TITLE_SIZE);
    GetClassNameA(window, class_name, sizeof class_name);
    GetWindowRect(window, &frame);
    GetClientRect(window, &client);
    ClientToScreen(window, &origin);
    printf("%s\t%ld %ld %ld %ld\t%ld %ld %ld %ld\t%s\n", class_name, frame.left, frame.top,
           frame.right, frame.bottom, origin.x, origin.y, origin.x + client.right,
           origin.y + client.bottom, title);
    return TRUE;
}

BOOL CALLBACK match_window(HWND window, LPARAM parameter)
{
    window_search *search = (window_search *)parameter;
    char text[TITLE_SIZE] = {};
    bool match;
    if (search->title) {
        GetWindowTextA(window, text, TITLE_SIZE);
        match = strncmp(text, search->title, strlen(search->title)) == 0;
    } else {
        GetClassNameA(window, text, TITLE_SIZE);
        match = strcmp(text, search->class_name) == 0;
    }
    if (!match || !IsWindowVisible(window))
        return TRUE;
    search->found = window;
    return FALSE;
}

HWND find_window(const char *which)
{
    window_search search = {which, nullptr, nullptr};
    const size_t prefix = strlen(CLASS_PREFIX);
    if (strncmp(which, CLASS_PREFIX, prefix) == 0)
        search = {nullptr, which + prefix, nullptr};
    EnumWindows(match_window, (LPARAM)&search);
    if (!search.found)
        fprintf(stderr, "there is no window %s\n", which);
    return search.found;
}

int print_text(HWND window, const char *class_name)
{
    if (class_name)
        window = FindWindowExA(window, nullptr, class_name, nullptr);
    if (!window)
        return 1;
    static char text[65536];
    DWORD_PTR length = 0;
    if (!SendMessageTimeoutA(window, WM_GETTEXT, sizeof text, (LPARAM)text, SMTO_ABORTIFHUNG,
                             5000, &length))
        return 1;
    fwrite(text, 1, strlen(text), stdout);
    return 0;
}

BOOL CALLBACK list_control(HWND control, LPARAM)
{
    char text[TITLE_SIZE] = {};
    char class_name[64] = {};
    RECT place = {};
    DWORD_PTR length = 0;
    GetClassNameA(control, class_name, sizeof class_name);
    GetWindowRect(control, &place);
    SendMessageTimeoutA(control, WM_GETTEXT, sizeof text, (LPARAM)text, SMTO_ABORTIFHUNG, 5000,
                        &length);
    printf("%s\t%d\t%d\t%lx\t%ld %ld %ld %ld\t%s\n", class_name, GetDlgCtrlID(control),
           IsWindowEnabled(control) ? 1 : 0, (unsigned long)GetWindowLongA(control, GWL_STYLE),
           place.left, place.top, place.right, place.bottom, text);
    return TRUE;
}

// A list view writes texts where the one who asks has memory, so that is had in its process.
int print_rows(HWND window)
{
    struct request {
        LVITEMA item;
        char text[TITLE_SIZE];
    };
    HWND list = FindWindowExA(window, nullptr, "SysListView32", nullptr);
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    HANDLE process =
        OpenProcess(PROCESS_VM_OPERATION | PROCESS_VM_READ | PROCESS_VM_WRITE, FALSE, pid);
    request *theirs = (request *)VirtualAllocEx(process, nullptr, sizeof(request), MEM_COMMIT,
                                                PAGE_READWRITE);
    if (!list || !theirs)
        return 1;
    HWND header = (HWND)SendMessageA(list, LVM_GETHEADER, 0, 0);
    int columns = (int)SendMessageA(header, HDM_GETITEMCOUNT, 0, 0);
    int rows = (int)SendMessageA(list, LVM_GETITEMCOUNT, 0, 0);
    for (int row = 0; row < rows; row++) {
        for (int column = 0; column < columns; column++) {
            request ours = {};
            ours.item.iSubItem = column;
            ours.item.pszText = theirs->text;
            ours.item.cchTextMax = TITLE_SIZE;
            WriteProcessMemory(process, theirs, &ours, sizeof ours, nullptr);
            SendMessageA(list, LVM_GETITEMTEXTA, (WPARAM)row, (LPARAM)&theirs->item);
            ReadProcessMemory(process, theirs, &ours, sizeof ours, nullptr);
            printf("%s%s", column ? "\t" : "", ours.text);
        }
        printf("\n");
    }
    VirtualFreeEx(process, theirs, 0, MEM_RELEASE);
    CloseHandle(process);
    return 0;
}

int print_front()
{
    HWND window = GetForegroundWindow();
    char title[TITLE_SIZE] = {};
    char class_name[64] = {};
    GetClassNameA(window, class_name, sizeof class_name);
    GetWindowTextA(window, title, sizeof title);
    printf("%s\t%s\n", class_name, title);
    return 0;
}

// A running process, to ask about it, and what is known of its memory; null when there is none.
HANDLE find_process(const char *name, PROCESS_MEMORY_COUNTERS_EX *memory)
{
    HANDLE list = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    DWORD pid = 0;
    for (BOOL more = Process32First(list, &entry); more; more = Process32Next(list, &entry))
        if (strcmp(entry.szExeFile, name) == 0)
            pid = entry.th32ProcessID;
    HANDLE process =
        pid ? OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid) : nullptr;
    if (!process ||
        !K32GetProcessMemoryInfo(process, (PROCESS_MEMORY_COUNTERS *)memory, sizeof *memory))
        return nullptr;
    return process;
}

// Committed bytes are a bound only: Wine counts what its own side of the process has too. On
// Windows PrivateUsage is the same; Wine leaves that 0 for another process, and its handles,
// too.
int print_holds(const char *name)
{
    DWORD handles = 0;
    PROCESS_MEMORY_COUNTERS_EX memory = {};
    HANDLE process = find_process(name, &memory);
    if (!process || !GetProcessHandleCount(process, &handles))
        return 1;
    printf("%lu %lu\n", handles, (unsigned long)(memory.PagefileUsage / 1024));
    return 0;
}

int print_peaks(const char *name)
{
    PROCESS_MEMORY_COUNTERS_EX memory = {};
    if (!find_process(name, &memory))
        return 1;
    printf("%lu %lu\n", (unsigned long)(memory.PeakWorkingSetSize / 1024),
           (unsigned long)(memory.PeakPagefileUsage / 1024));
    return 0;
}

// Wine itself does not survive a process that starts with both closed in the Unix way.
int run_bare(char *command)
{
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES; // and all three null
    PROCESS_INFORMATION started = {};
    if (!CreateProcessA(nullptr, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &started)) {
        fprintf(stderr, "cannot start %s: %lu\n", command, GetLastError());
        return 1;
    }
    WaitForSingleObject(started.hProcess, INFINITE);
    DWORD status = 1;
    GetExitCodeProcess(started.hProcess, &status);
    return (int)status;
}

} // namespace

int main(int argc, char **argv)
{
    const char *verb = argc > 1 ? argv[1] : "";
    if (strcmp(verb, "stay") == 0) {
        GetDesktopWindow();
        Sleep(INFINITE);
    }
    if (strcmp(verb, "claim") == 0 && argc == 3) {
        const HANDLE mutex = CreateMutexA(nullptr, TRUE, argv[2]);
        printf("claimed %d\n", mutex && GetLastError() == 0);
        fflush(stdout);
        Sleep(INFINITE);
    }
    if (strcmp(verb, "list") == 0) {
        EnumWindows(list_window, 0);
        return 0;
    }
    if (strcmp(verb, "metrics") == 0) {
        printf("%d %d\n", GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN));
        return 0;
    }
    if (strcmp(verb, "cursor") == 0) {
        POINT at = {};
        GetCursorPos(&at);
        printf("%ld %ld\n", at.x, at.y);
        return 0;
    }
    if (strcmp(verb, "pressed") == 0) {
        for (int key = 1; key < 255; key++)
            if (GetAsyncKeyState(key) & 0x8000)
                printf("%d\n", key);
        return 0;
    }

    if (strcmp(verb, "front") == 0 && argc == 2)
        return print_front();

    if (strcmp(verb, "bare") == 0 && argc == 3)
        return run_bare(argv[2]);
    if (strcmp(verb, "holds") == 0 && argc == 3)
        return print_holds(argv[2]);
    if (strcmp(verb, "peaks") == 0 && argc == 3)
        return print_peaks(argv[2]);

    HWND window = argc > 2 ? find_window(argv[2]) : nullptr;
    if (!window)
        return 1;
    if (strcmp(verb, "text") == 0)
        return print_text(window, argc > 3 ? argv[3] : nullptr);
    if (strcmp(verb, "controls") == 0) {
        EnumChildWindows(window, list_control, 0);
        return 0;
    }
    if (strcmp(verb, "rows") == 0)
        return print_rows(window);
    if (strcmp(verb, "place") == 0 && argc == 7)
        return !SetWindowPos(window, HWND_TOP, atoi(argv[3]), atoi(argv[4]), atoi(argv[5]),
                             atoi(argv[6]), 0);
    if (strcmp(verb, "front") == 0)
        return !SetForegroundWindow(window);
    if (strcmp(verb, "post") == 0 && argc == 5)
        return !PostMessageA(window, (UINT)atoi(argv[3]), (WPARAM)atoi(argv[4]), 0);
    if (strcmp(verb, "fill") == 0 && argc == 5)
        return !SetDlgItemTextA(window, atoi(argv[3]), argv[4]);
    DWORD_PTR answer = 0;
    if (strcmp(verb, "send") == 0 && argc == 5 &&
        SendMessageTimeoutA(window, (UINT)atoi(argv[3]), (WPARAM)atoi(argv[4]), 0,
                            SMTO_ABORTIFHUNG, 5000, &answer)) {
        printf("%llu\n", (unsigned long long)answer);
        return 0;
    }
    fprintf(stderr, "unknown request\n");
    return 1;
}
