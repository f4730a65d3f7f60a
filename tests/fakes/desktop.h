// A desktop for the host server: its start-up calls, a screen that shows what the test put
// there, and a pointer that rests.
#ifndef QV_TESTS_FAKES_DESKTOP_H
#define QV_TESTS_FAKES_DESKTOP_H

#include <stdint.h>
#include <string>
#include <vector>

// A black screen of this size, captured by duplication (or else GDI), from capture_start on.
// No other thread may use the desktop meanwhile.
void desktop_reset(int32_t width, int32_t height, bool duplication);

// From the next capture on: the screen in one colour (a byte repeated), and its size.
void desktop_paint(uint8_t byte);
void desktop_resize(int32_t width, int32_t height);

// Called at the start of every capture, on the server's thread; null for none.
void desktop_on_capture(void (*called)());

// The calls so far, in order: "dpi", "real-time", "start"; captures are only counted.
std::vector<std::string> desktop_calls();
int desktop_captures();

#endif
