// Screen capture: Desktop Duplication where it can be had, GDI otherwise.
//
// Runs on the host server thread only. A step brings screen.frame_buffer up to date, marks
// the tiles that may have changed and collects moves; which back end did it is nobody
// else's business.
#ifndef QV_HOST_CAPTURE_H
#define QV_HOST_CAPTURE_H

namespace host
{

enum capture_result {
    CAPTURE_FRAME,     // frame_buffer holds the newest picture
    CAPTURE_NOTHING,   // nothing new
    CAPTURE_RESTARTED, // the back end was re-created; the iteration ends
};

// Takes the primary screen's size and sets up duplication, or GDI if that fails. Returns 1
// when duplication is in use, else 0.
int capture_start();

// True while duplication is in use.
bool capture_is_duplication();

// One capture: waits at most 2 ms for duplication, or for as long as capture_pace.h says
// between two GDI copies.
capture_result capture_step();

} // namespace host

#endif
