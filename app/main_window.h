// The main window: this computer's ID and password above, connecting to another one below.
//
// One per process, on the thread of the entry point. Other threads post messages to it and
// touch nothing else here.
#ifndef QV_APP_MAIN_WINDOW_H
#define QV_APP_MAIN_WINDOW_H

#include <stdint.h>

// Handles as the system's headers name them, which only the edges include.
struct HWND__;
struct HFONT__;
struct HINSTANCE__;
typedef HWND__ *HWND;
typedef HFONT__ *HFONT;
typedef HINSTANCE__ *HINSTANCE;

namespace app
{

constexpr char MAIN_CLASS[] = "qvapp";

// Posted to the main window.
enum app_message : uint32_t {
    APP_MSG_TRAY = 32769,             // by the shell: the mouse did something to the tray icon
    APP_MSG_SHOW = 32770,             // by a second start of the program
    APP_MSG_SESSION_ENDED = 32771,    // by the viewer's thread: the session ended or failed
    APP_MSG_VIEWER_CONNECTED = 32772, // by the viewer's thread: it has reached a host
};

// Controls of the main window and entries of the tray menu.
enum app_command : int32_t {
    COMMAND_DEFAULT = 1, // Enter, to a system that does not ask which button is the default
    COMMAND_SET_PASSWORD = 101,
    COMMAND_COPY_ID = 102,
    COMMAND_COPY_PASSWORD = 103,
    CONTROL_TARGET = 104,
    CONTROL_PASSWORD = 105,
    COMMAND_CONNECT = 106,
    CONTROL_HISTORY = 107,
    COMMAND_HISTORY_CONNECT = 108,
    COMMAND_HISTORY_RENAME = 109,
    COMMAND_HISTORY_REMOVE = 110,
    COMMAND_SHOW = 201,
    COMMAND_EXIT = 202,
};

extern HWND main_window; // set while it is created, before its controls are
extern HFONT gui_font;   // of every control but the ID label

// The controls that are read or changed later.
struct main_window_controls {
    HWND id_label, password_label, status_label;
    HWND target_edit, password_edit, connect_button, history_list;
};
extern main_window_controls controls;

// Makes the fonts.
void main_window_fonts();

// Registers the window's class and makes the window, visible, with all its controls.
void main_window_open(HINSTANCE instance);

// Brings the labels up to date with the host.
void refresh_status();

} // namespace app

#endif
