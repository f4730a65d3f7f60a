// The main window's procedure and the small routines that it uses.
//
// Decisions are made elsewhere: what labels say in labels, where a typed target leads in
// connect_target, what the history holds in history. The host is followed by looking at its
// identity once a second; nothing here waits for another thread.
#include "app/main_window.h"

#include "app/connect_flow.h"
#include "app/connect_target.h"
#include "app/history_list.h"
#include "app/input_dialog.h"
#include "app/labels.h"
#include "app/tray.h"
#include "host/host_server.h"
#include "identity/host_identity.h"
#include "protocol/win32.h"

#include <commctrl.h>
#include <monocypher.h>
#include <string.h>

namespace app
{

constexpr char TITLE[] = "qv remote desktop";
constexpr DWORD WINDOW_STYLE = WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX;
constexpr int32_t CLIENT_WIDTH = 484;
constexpr int32_t CLIENT_HEIGHT = 520;
constexpr UINT_PTR STATUS_TIMER = 1;
constexpr UINT STATUS_INTERVAL_MS = 1000;

HWND main_window;
HFONT gui_font;
static HFONT id_font;
main_window_controls controls;

// Client pixels.
struct control_place {
    int32_t x, y, width, height;
};

// font null: the window's own.
static HWND create_control(const char *class_name, const char *text, DWORD style,
                           control_place at, int32_t id, HFONT font = nullptr)
{
    DWORD edge = strcmp(class_name, "EDIT") == 0 ? WS_EX_CLIENTEDGE : 0;
    HWND control = CreateWindowExA(edge, class_name, text, style | WS_CHILD | WS_VISIBLE, at.x,
                                   at.y, at.width, at.height, main_window, (HMENU)(INT_PTR)id,
                                   GetModuleHandleA(nullptr), nullptr);
    SendMessageA(control, WM_SETFONT, (WPARAM)(font ? font : gui_font), TRUE);
    return control;
}

static HWND create_text(const char *text, control_place at)
{
    return create_control("STATIC", text, 0, at, 0);
}

// For texts that are not ours: a '&' in a password is to be seen, not to underline what
// follows.
static HWND create_label(const char *text, control_place at, HFONT font = nullptr)
{
    return create_control("STATIC", text, SS_NOPREFIX, at, 0, font);
}

static HWND create_button(const char *text, control_place at, int32_t id, DWORD style = 0)
{
    return create_control("BUTTON", text, WS_TABSTOP | style, at, id);
}

static HWND create_edit(control_place at, int32_t id, DWORD style = 0)
{
    return create_control("EDIT", "", WS_TABSTOP | ES_AUTOHSCROLL | style, at, id);
}

// In the order in which Tab goes through them.
static void create_controls()
{
    create_text("This computer", {16, 12, 300, 20});
    controls.id_label = create_label("--- --- ---", {16, 36, 300, 36}, id_font);
    create_button("Copy ID", {330, 40, 90, 26}, COMMAND_COPY_ID);
    create_text("Password:", {16, 84, 80, 20});
    controls.password_label = create_label("", {96, 84, 150, 20});
    create_button("Copy", {250, 80, 70, 26}, COMMAND_COPY_PASSWORD);
    create_button("Set password...", {330, 80, 120, 26}, COMMAND_SET_PASSWORD);
    controls.status_label = create_label("Starting...", {16, 112, 440, 20});

    create_text("Connect to another computer", {16, 146, 300, 20});
    create_text("ID (or host:port on the LAN)", {16, 170, 200, 18});
    create_text("Password", {236, 170, 120, 18});
    controls.target_edit = create_edit({16, 190, 210, 24}, CONTROL_TARGET);
    controls.password_edit = create_edit({236, 190, 130, 24}, CONTROL_PASSWORD, ES_PASSWORD);
    controls.connect_button =
        create_button("Connect", {376, 189, 90, 26}, COMMAND_CONNECT, BS_DEFPUSHBUTTON);

    create_text("History  (double-click to connect)", {16, 226, 300, 20});
    controls.history_list = create_control(
        "SysListView32", "", WS_TABSTOP | LVS_REPORT | LVS_SINGLESEL | LVS_SHOWSELALWAYS,
        {16, 248, 450, 200}, CONTROL_HISTORY);
    create_button("Connect", {16, 456, 90, 26}, COMMAND_HISTORY_CONNECT);
    create_button("Rename...", {116, 456, 90, 26}, COMMAND_HISTORY_RENAME);
    create_button("Remove", {216, 456, 90, 26}, COMMAND_HISTORY_REMOVE);
}

static LRESULT on_create(HWND window)
{
    main_window = window; // the controls' parent
    create_controls();
    history_list_columns();
    history_fill_list();
    SetTimer(window, STATUS_TIMER, STATUS_INTERVAL_MS, nullptr);
    return 0;
}

// Leaves a label alone that says so already: a new text makes it flicker, and every second.
static void set_label(HWND label, const char *text)
{
    char shown[LABEL_SIZE];
    GetWindowTextA(label, shown, sizeof shown);
    if (strcmp(shown, text) != 0)
        SetWindowTextA(label, text);
    crypto_wipe(shown, sizeof shown); // it may have been the password
}

void refresh_status()
{
    char label[LABEL_SIZE];
    label_id(label, host_get_id());
    set_label(controls.id_label, label);
    set_label(controls.password_label, host_get_password());
    label_status(label, host_get_state(), host_get_peer_name(), host_get_relay(),
                 host_get_computer_name());
    set_label(controls.status_label, label);
}

static void copy_to_clipboard(const char *text)
{
    if (!OpenClipboard(main_window))
        return;
    EmptyClipboard();
    size_t size = strlen(text) + 1;
    HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, size);
    void *copy = memory ? GlobalLock(memory) : nullptr;
    if (copy) {
        memcpy(copy, text, size);
        GlobalUnlock(memory);
    }
    // The clipboard owns what it took.
    if (memory && (!copy || !SetClipboardData(CF_TEXT, memory)))
        GlobalFree(memory);
    CloseClipboard();
}

static void set_password()
{
    char password[INPUT_TEXT_SIZE] = {};
    if (input_dialog(main_window, "Set password",
                     "New password for this computer (empty = back to an automatic temporary "
                     "password):",
                     password)) {
        host_set_password(password);
        refresh_status();
    }
    crypto_wipe(password, sizeof password);
}

static void connect_as_typed()
{
    char target[CONNECT_TEXT_SIZE] = {};
    char password[CONNECT_PASSWORD_SIZE] = {};
    GetWindowTextA(controls.target_edit, target, sizeof target);
    GetWindowTextA(controls.password_edit, password, sizeof password);
    start_connect(target, password);
    crypto_wipe(password, sizeof password);
}

// A session that is still open ends with the process.
static void exit_program()
{
    tray_remove();
    host::host_stop();
    DestroyWindow(main_window);
}

static LRESULT on_command(HWND window, WPARAM wparam, LPARAM lparam)
{
    switch (LOWORD(wparam)) {
    case COMMAND_SET_PASSWORD:
        set_password();
        return 0;
    case COMMAND_COPY_ID:
        copy_to_clipboard(host_get_id());
        return 0;
    case COMMAND_COPY_PASSWORD:
        copy_to_clipboard(host_get_password());
        return 0;
    case COMMAND_DEFAULT:
    case COMMAND_CONNECT:
        connect_as_typed();
        return 0;
    case COMMAND_HISTORY_CONNECT:
        connect_selected_history();
        return 0;
    case COMMAND_HISTORY_RENAME:
        history_rename_selected();
        return 0;
    case COMMAND_HISTORY_REMOVE:
        history_remove_selected();
        return 0;
    case COMMAND_SHOW:
        show_main_window();
        return 0;
    case COMMAND_EXIT:
        exit_program();
        return 0;
    default:
        return DefWindowProcA(window, WM_COMMAND, wparam, lparam);
    }
}

static void on_notify(const NMHDR *notification)
{
    if (notification->idFrom == CONTROL_HISTORY && notification->code == (UINT)NM_DBLCLK)
        connect_selected_history();
}

static void on_tray(LPARAM mouse_message)
{
    if (mouse_message == WM_LBUTTONUP || mouse_message == WM_LBUTTONDBLCLK)
        show_main_window();
    else if (mouse_message == WM_RBUTTONUP)
        tray_menu();
}

static LRESULT CALLBACK window_procedure(HWND window, UINT message, WPARAM wparam,
                                         LPARAM lparam)
{
    switch (message) {
    case WM_CREATE:
        return on_create(window);
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    case WM_SIZE:
        if (wparam != SIZE_MINIMIZED)
            return DefWindowProcA(window, message, wparam, lparam);
        hide_to_tray();
        return 0;
    case WM_CLOSE:
        hide_to_tray();
        return 0;
    case WM_TIMER:
        refresh_status();
        return 0;
    case WM_NOTIFY:
        on_notify((const NMHDR *)lparam);
        return 0;
    case WM_COMMAND:
        return on_command(window, wparam, lparam);
    // The window is no dialog to the system, so it says itself which button Enter presses.
    case DM_GETDEFID:
        return MAKELRESULT(COMMAND_CONNECT, DC_HASDEFID);

    case APP_MSG_TRAY:
        on_tray(lparam);
        return 0;
    case APP_MSG_SHOW:
        show_main_window();
        return 0;
    case APP_MSG_SESSION_ENDED:
        connect_session_ended();
        return 0;
    case APP_MSG_VIEWER_CONNECTED:
        history_record_connection();
        return 0;
    default:
        return DefWindowProcA(window, message, wparam, lparam);
    }
}

void main_window_fonts()
{
    gui_font = (HFONT)GetStockObject(DEFAULT_GUI_FONT);
    id_font = CreateFontA(-28, 0, 0, 0, FW_SEMIBOLD, FALSE, FALSE, FALSE, DEFAULT_CHARSET,
                          OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, CLEARTYPE_QUALITY,
                          DEFAULT_PITCH | FF_DONTCARE, "Segoe UI");
}

void main_window_open(HINSTANCE instance)
{
    WNDCLASSA window_class = {};
    window_class.lpfnWndProc = window_procedure;
    window_class.hInstance = instance;
    window_class.hIcon = LoadIconA(nullptr, (LPCSTR)IDI_APPLICATION);
    window_class.hCursor = LoadCursorA(nullptr, (LPCSTR)IDC_ARROW);
    window_class.hbrBackground = (HBRUSH)(COLOR_BTNFACE + 1);
    window_class.lpszClassName = MAIN_CLASS;
    RegisterClassA(&window_class);

    RECT outer = {0, 0, CLIENT_WIDTH, CLIENT_HEIGHT};
    AdjustWindowRect(&outer, WINDOW_STYLE, FALSE);
    CreateWindowExA(0, MAIN_CLASS, TITLE, WINDOW_STYLE | WS_VISIBLE, CW_USEDEFAULT,
                    CW_USEDEFAULT, outer.right - outer.left, outer.bottom - outer.top, nullptr,
                    nullptr, instance, nullptr);
}

} // namespace app
