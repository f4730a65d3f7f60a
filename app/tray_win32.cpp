// The tray icon, its balloon and its menu.
#include "app/tray.h"

#include "app/main_window.h"
#include "protocol/bytes.h"
#include "protocol/win32.h"

#include <shellapi.h>

namespace app
{

constexpr UINT TRAY_ICON = 1;

// Owner: the window's thread.
static NOTIFYICONDATAA icon;
static bool balloon_shown;

static_assert(sizeof icon == 528, "the layout with balloons and their icons");

void tray_add()
{
    icon = {};
    icon.cbSize = sizeof icon;
    icon.hWnd = main_window;
    icon.uID = TRAY_ICON;
    icon.uFlags = NIF_MESSAGE | NIF_ICON | NIF_TIP;
    icon.uCallbackMessage = APP_MSG_TRAY;
    icon.hIcon = LoadIconA(nullptr, (LPCSTR)IDI_APPLICATION);
    copy_text(icon.szTip, sizeof icon.szTip, "qv remote desktop");
    Shell_NotifyIconA(NIM_ADD, &icon);
}

void tray_remove()
{
    Shell_NotifyIconA(NIM_DELETE, &icon);
}

void hide_to_tray()
{
    ShowWindow(main_window, SW_HIDE);
    if (balloon_shown)
        return;
    balloon_shown = true;
    icon.uFlags |= NIF_INFO;
    copy_text(icon.szInfoTitle, sizeof icon.szInfoTitle, "qv is still running");
    copy_text(icon.szInfo, sizeof icon.szInfo,
              "This computer stays reachable. Right-click the tray icon to exit.");
    Shell_NotifyIconA(NIM_MODIFY, &icon);
    icon.uFlags &= ~(UINT)NIF_INFO;
}

void show_main_window()
{
    ShowWindow(main_window, SW_SHOW);
    ShowWindow(main_window, SW_RESTORE); // it may have been minimised when it was hidden
    SetForegroundWindow(main_window);
}

void tray_menu()
{
    HMENU menu = CreatePopupMenu();
    POINT at = {};
    GetCursorPos(&at);
    AppendMenuA(menu, MF_STRING, COMMAND_SHOW, "Show qv");
    AppendMenuA(menu, MF_SEPARATOR, 0, nullptr);
    AppendMenuA(menu, MF_STRING, COMMAND_EXIT, "Exit");
    // The menu of a window that is not in front does not go away by a click beside it; and
    // the message makes the switch back happen before the next menu.
    SetForegroundWindow(main_window);
    TrackPopupMenu(menu, TPM_RIGHTBUTTON | TPM_BOTTOMALIGN, at.x, at.y, 0, main_window,
                   nullptr);
    PostMessageA(main_window, WM_NULL, 0, 0);
    DestroyMenu(menu);
}

} // namespace app
