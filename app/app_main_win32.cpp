// qv.exe: the desktop application.
//
// One runs per logon session; a second start brings the first one's window to the front. The
// host serves through the relay from the start to the end, whether the window is visible or
// not.
//
// Threads: this one with all windows of the application; the host server, until the process
// ends; the viewer's, while a session is open. None is waited for at the end.
#include "app/connect_flow.h"
#include "app/history.h"
#include "app/main_window.h"
#include "app/tray.h"
#include "host/host_server.h"
#include "identity/host_identity.h"
#include "identity/server_log.h"
#include "protocol/bytes.h"
#include "protocol/system_library.h"
#include "protocol/win32.h"
#include "viewer/viewer_session.h"

#include <commctrl.h>
#include <shlobj.h>
#include <stdio.h>

static DWORD WINAPI host_thread_main(void *)
{
    server_log_open();
    host::host_server_run();
    return 0;
}

// Asks the instance that runs to show itself. The start is what the user just did, so this
// process may decide who comes to the front, and passes that on.
static void show_running_instance()
{
    HWND window = FindWindowA(app::MAIN_CLASS, nullptr);
    if (!window)
        return;
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    AllowSetForegroundWindow(process);
    PostMessageA(window, app::APP_MSG_SHOW, 0, 0);
}

// The list view's class. By a bare name, since the manifest turns that into the library's new
// version, in a folder of the system's that has no fixed name; without the manifest, the old
// one from the system's folder.
static void register_list_view()
{
    using init_controls = BOOL(WINAPI *)(const INITCOMMONCONTROLSEX *);
    HMODULE library = LoadLibraryExW(L"comctl32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    void *function = library ? (void *)GetProcAddress(library, "InitCommonControlsEx")
                             : system_library_function(L"comctl32.dll", "InitCommonControlsEx");
    const INITCOMMONCONTROLSEX wanted = {sizeof wanted, ICC_LISTVIEW_CLASSES};
    if (function)
        ((init_controls)function)(&wanted);
}

// The history is each user's own, unlike the data directory, which is the machine's.
static void load_history()
{
    char folder[MAX_PATH];
    if (FAILED(SHGetFolderPathA(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, folder)))
        copy_text(folder, sizeof folder, ".");
    char path[app::HISTORY_PATH_SIZE];
    snprintf(path, sizeof path, "%s\\qv", folder);
    CreateDirectoryA(path, nullptr);
    snprintf(path, sizeof path, "%s\\qv\\history.txt", folder);
    app::history_load(path);
}

static void run_message_loop()
{
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        if (!IsDialogMessageA(app::main_window, &message)) {
            TranslateMessage(&message);
            DispatchMessageA(&message);
        }
    }
}

int WINAPI WinMain(HINSTANCE instance, HINSTANCE, LPSTR, int)
{
    system_library_restrict();
    HANDLE single = CreateMutexA(nullptr, TRUE, "Local\\qv_app_single_instance");
    const DWORD error = GetLastError();
    // Denied: there is one, made by an instance of higher rights.
    if (error == ERROR_ALREADY_EXISTS || error == ERROR_ACCESS_DENIED) {
        show_running_instance();
        return 0;
    }
    register_list_view();
    SetProcessDPIAware();
    app::main_window_fonts();
    load_history();
    viewer::on_connected = app::on_viewer_connected;

    host_identity_init(1);
    HANDLE host_thread = CreateThread(nullptr, 0, host_thread_main, nullptr, 0, nullptr);
    if (host_thread)
        CloseHandle(host_thread);

    app::main_window_open(instance);
    app::tray_add();
    app::refresh_status();
    run_message_loop();
    ReleaseMutex(single);
    return 0;
}
