// The input dialog: plain windows and a message loop of its own.
//
// Destroying the window posts the quit message, which ends the dialog's loop and is used up
// by that, so the program's main loop goes on. When the program itself was told to exit
// meanwhile, the quit message was also meant for the main loop, and is posted again. It shows
// by the owner, which is gone (and took the dialog along), or by the dialog, which the quit
// message left standing.
#include "app/input_dialog.h"

#include "protocol/win32.h"

namespace app
{

constexpr char DIALOG_CLASS[] = "qvinput";
constexpr int32_t FROM_OWNER_X = 60;
constexpr int32_t FROM_OWNER_Y = 120;
constexpr int32_t WIDTH = 380;
constexpr int32_t HEIGHT = 150;

// The open dialog. Owner: the window's thread.
static struct {
    bool class_registered;
    HWND edit;
    char *text; // INPUT_TEXT_SIZE bytes, the caller's
    bool confirmed;
} dialog;

static LRESULT CALLBACK input_dialog_proc(HWND window, UINT message, WPARAM wparam,
                                          LPARAM lparam)
{
    switch (message) {
    case WM_COMMAND:
        if (LOWORD(wparam) == IDOK) {
            GetWindowTextA(dialog.edit, dialog.text, INPUT_TEXT_SIZE);
            dialog.confirmed = true;
            DestroyWindow(window);
        } else if (LOWORD(wparam) == IDCANCEL) {
            DestroyWindow(window);
        }
        return 0;
    case WM_CLOSE:
        DestroyWindow(window);
        return 0;
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    default:
        return DefWindowProcA(window, message, wparam, lparam);
    }
}

static void register_class(HINSTANCE instance)
{
    if (dialog.class_registered)
        return;
    WNDCLASSA window_class = {};
    window_class.lpfnWndProc = input_dialog_proc;
    window_class.hInstance = instance;
    window_class.hCursor = LoadCursorA(nullptr, (LPCSTR)IDC_ARROW);
    window_class.hbrBackground = (HBRUSH)(COLOR_BTNFACE + 1);
    window_class.lpszClassName = DIALOG_CLASS;
    RegisterClassA(&window_class);
    dialog.class_registered = true;
}

static HWND create_child(HWND parent, const char *class_name, const char *text, DWORD style,
                         DWORD edge, RECT at, int32_t id)
{
    HWND child = CreateWindowExA(edge, class_name, text, style | WS_CHILD | WS_VISIBLE, at.left,
                                 at.top, at.right - at.left, at.bottom - at.top, parent,
                                 (HMENU)(INT_PTR)id, GetModuleHandleA(nullptr), nullptr);
    SendMessageA(child, WM_SETFONT, (WPARAM)gui_font, TRUE);
    return child;
}

static HWND open_dialog(HWND owner, const char *title, const char *prompt)
{
    HINSTANCE instance = GetModuleHandleA(nullptr);
    register_class(instance);
    RECT at = {};
    GetWindowRect(owner, &at);
    HWND window = CreateWindowExA(WS_EX_DLGMODALFRAME | WS_EX_TOPMOST, DIALOG_CLASS, title,
                                  WS_POPUP | WS_VISIBLE | WS_CAPTION | WS_SYSMENU,
                                  at.left + FROM_OWNER_X, at.top + FROM_OWNER_Y, WIDTH, HEIGHT,
                                  owner, nullptr, instance, nullptr);

    create_child(window, "STATIC", prompt, 0, 0, {12, 12, 362, 32}, 0);
    dialog.edit = create_child(window, "EDIT", dialog.text, WS_TABSTOP | ES_AUTOHSCROLL,
                               WS_EX_CLIENTEDGE, {12, 36, 362, 60}, 0);
    create_child(window, "BUTTON", "OK", WS_TABSTOP | BS_DEFPUSHBUTTON, 0, {190, 76, 270, 102},
                 IDOK);
    create_child(window, "BUTTON", "Cancel", WS_TABSTOP, 0, {282, 76, 362, 102}, IDCANCEL);
    return window;
}

static void run_loop(HWND window)
{
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        if (message.message == WM_KEYDOWN && message.wParam == VK_RETURN) {
            SendMessageA(window, WM_COMMAND, IDOK, 0);
        } else if (message.message == WM_KEYDOWN && message.wParam == VK_ESCAPE) {
            SendMessageA(window, WM_COMMAND, IDCANCEL, 0);
        } else if (!IsDialogMessageA(window, &message)) {
            TranslateMessage(&message);
            DispatchMessageA(&message);
        }
    }
}

bool input_dialog(HWND owner, const char *title, const char *prompt, char text[INPUT_TEXT_SIZE])
{
    dialog.text = text;
    dialog.confirmed = false;
    HWND window = open_dialog(owner, title, prompt);
    EnableWindow(owner, FALSE);
    SetFocus(dialog.edit);
    SendMessageA(dialog.edit, EM_SETSEL, 0, -1);

    run_loop(window);

    bool exiting = IsWindow(window) || !IsWindow(owner);
    DestroyWindow(window); // fails harmlessly when it is gone, as it is but for an exit
    dialog.text = nullptr;
    if (exiting)
        PostQuitMessage(0);
    if (IsWindow(owner)) {
        EnableWindow(owner, TRUE);
        SetForegroundWindow(owner);
    }
    return dialog.confirmed;
}

} // namespace app
