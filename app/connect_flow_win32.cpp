// The connect flow: one viewer session at a time.
//
//   idle             button "Connect"
//   start_connect    button "Connecting...", disabled; viewer_worker starts
//   viewer_worker    the session, from its connection to its closed window; a failure's text
//                    in a message box, which the thread waits for
//   idle again       on APP_MSG_SESSION_ENDED, its last word
#include "app/connect_flow.h"

#include "app/history.h"
#include "app/history_list.h"
#include "app/main_window.h"
#include "identity/host_identity.h"
#include "protocol/bytes.h"
#include "protocol/win32.h"
#include "viewer/viewer_session.h"

#include <monocypher.h>

namespace app
{

constexpr size_t ERROR_TEXT_SIZE = 128;

connected_host_record connected_host;

static bool session_open; // owner: the window's thread

void on_viewer_connected(const char *host_name, const char *target)
{
    copy_text(connected_host.computer, sizeof connected_host.computer, host_name);
    copy_text(connected_host.target, sizeof connected_host.target, target);
    PostMessageA(main_window, APP_MSG_VIEWER_CONNECTED, 0, 0);
}

static DWORD WINAPI viewer_worker(void *parameter)
{
    connect_request *request = (connect_request *)parameter;
    char error[ERROR_TEXT_SIZE] = {};
    int failed =
        viewer::viewer_session_run(request->host, request->port, request->use_relay != 0,
                                   request->target, request->password, error, sizeof error);
    connect_request_free(request);
    if (failed && error[0] != 0)
        MessageBoxA(nullptr, error, "qv - could not connect", MB_ICONEXCLAMATION | MB_TOPMOST);
    PostMessageA(main_window, APP_MSG_SESSION_ENDED, 0, 0);
    return 0;
}

void start_connect(const char *target, const char *password)
{
    if (target[0] == 0) {
        MessageBoxA(main_window, "Enter the ID of the computer to connect to.", "qv",
                    MB_ICONINFORMATION);
        return;
    }
    if (session_open) {
        MessageBoxA(main_window, "A session is already open. Close it first.", "qv",
                    MB_ICONINFORMATION);
        return;
    }
    connect_request *request = connect_request_new(target, password, host_get_relay());
    if (!request)
        return;
    session_open = true;
    EnableWindow(controls.connect_button, FALSE);
    SetWindowTextA(controls.connect_button, "Connecting...");
    HANDLE thread = CreateThread(nullptr, 0, viewer_worker, request, 0, nullptr);
    if (thread) {
        CloseHandle(thread);
    } else {
        connect_request_free(request);
        connect_session_ended();
    }
}

void connect_selected_history()
{
    const history_entry *entry = history_get(history_selected());
    if (!entry)
        return;
    char password[CONNECT_PASSWORD_SIZE] = {};
    SetWindowTextA(controls.target_edit, entry->id);
    GetWindowTextA(controls.password_edit, password, sizeof password);
    start_connect(entry->id, password);
    crypto_wipe(password, sizeof password);
}

void connect_session_ended()
{
    session_open = false;
    EnableWindow(controls.connect_button, TRUE);
    SetWindowTextA(controls.connect_button, "Connect");
}

} // namespace app
