// A viewer window that shows nothing: its message loop waits for the close request, from the
// receive thread or from the test, and then does what the window does when it is destroyed.
// All of it may be called from any thread.
#ifndef QV_TESTS_FAKES_WINDOW_NONE_H
#define QV_TESTS_FAKES_WINDOW_NONE_H

#include <stdint.h>
#include <string>

// Forgets all counts; windows open again.
void window_none_reset();

// From now on no window can be created.
void window_none_refuse();

// Closes the window, as its user would.
void window_none_close();

// Ends the message loop without destroying the window.
void window_none_quit();

// Requests since the reset, whether or not a window was there to get them.
uint32_t window_none_repaints();
uint32_t window_none_close_requests(); // by the product, not by the test
uint32_t window_none_opened();         // windows created
std::string window_none_title();       // of the window created last

// Waits until there were so many repaint requests (or windows); false after 10 seconds.
bool window_none_wait_repaints(uint32_t count);
bool window_none_wait_opened(uint32_t count);

#endif
