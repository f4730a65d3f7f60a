// The icon in the notification area, and the main window's way there and back. Window thread.
#ifndef QV_APP_TRAY_H
#define QV_APP_TRAY_H

namespace app
{

void tray_add();
void tray_remove();

// Hides the main window. The first time, a balloon says that the program goes on.
void hide_to_tray();

// Brings the main window to the front, wherever it was.
void show_main_window();

// Shows the icon's menu at the pointer; what is chosen arrives as WM_COMMAND.
void tray_menu();

} // namespace app

#endif
