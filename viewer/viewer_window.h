// The viewer window: painting, input, title.
//
// The thread that runs the session creates the window and runs its message loop; the
// receive thread only posts to it.
#ifndef QV_VIEWER_VIEWER_WINDOW_H
#define QV_VIEWER_VIEWER_WINDOW_H

namespace viewer
{

// Creates and shows the window of class "qvviewer" for the open frame and starts its timers.
// False when it cannot be created. The title is the host's name until the first statistics.
[[nodiscard]] bool viewer_window_open(const char *host_name);

// Runs the message loop until the window was destroyed.
void viewer_window_run();

// Any thread, also when there is no window (nothing happens then).
void viewer_window_post_repaint();
void viewer_window_post_close();

} // namespace viewer

#endif
