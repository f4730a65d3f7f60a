// From what the user typed to one viewer session, on a thread of its own.
#ifndef QV_APP_CONNECT_FLOW_H
#define QV_APP_CONNECT_FLOW_H

#include "app/connect_target.h"
#include "protocol/messages.h"

namespace app
{

// Starts a session in the background, or says in a message box why not: the target is empty,
// or a session is open. Window thread.
void start_connect(const char *target, const char *password);

// The same for the selected row of the history, with the password in the password field.
// Nothing when no row is selected. Window thread.
void connect_selected_history();

// The session is over: the next one may start. Window thread.
void connect_session_ended();

// For viewer::on_connected. Notes who was reached and tells the main window. Session's thread.
// Kept on purpose: a session knows 18 characters of its target, so a longer address goes into
// the history cut to those.
void on_viewer_connected(const char *host_name, const char *target);

// Whom the present session reached. Written by the session's thread before it posts
// APP_MSG_VIEWER_CONNECTED, read by the window's thread on that message. No lock: the next
// session, which would write again, starts only after the window's thread has seen the
// messages of this one.
struct connected_host_record {
    char target[64];
    char computer[NAME_BYTES + 1];
};
extern connected_host_record connected_host;

} // namespace app

#endif
