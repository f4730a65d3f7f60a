// When the next copy of the screen is due, where nothing tells of changes.
//
// Used by the GDI back end alone: duplication waits in its own call.
#ifndef QV_HOST_CAPTURE_PACE_H
#define QV_HOST_CAPTURE_PACE_H

#include <stdint.h>

namespace host
{

// From the end of one copy to the start of the next, microseconds.
constexpr uint64_t COPY_PAUSE_US = 16000;           // about 60 copies a second
constexpr uint64_t COPY_PAUSE_INPUT_US = 5000;      // the answer to an input is awaited
constexpr uint64_t COPY_PAUSE_RESTING_US = 33000;   // nothing happened for REST_US
constexpr uint64_t COPY_PAUSE_LONG_REST_US = 50000; // nor for LONG_REST_US

constexpr uint64_t INPUT_ANSWER_US = 48000; // for so long an input's answer is awaited
constexpr uint64_t REST_US = 2000000;
constexpr uint64_t LONG_REST_US = 10000000;

constexpr uint64_t INPUT_ANSWERED = UINT64_MAX;

// The pause by the age of the last input, INPUT_ANSWERED if there is none or the screen has
// changed after it, and the age of whatever happened last. Pure.
uint64_t copy_pause_us(uint64_t input_age_us, uint64_t activity_age_us);

// A session begins: no input, and something has just happened. Server thread.
void capture_pace_start();

// Waits until a copy is due after one that ended at copy_end_us, by clock_us. What other
// threads report meanwhile counts at once. Server thread.
void capture_pace_wait(uint64_t copy_end_us);

// A frame went out; picture: something besides the pointer had changed. Server thread.
void capture_pace_frame(bool picture);

// An input was injected. Any thread.
void capture_pace_input();

// Whether an input was injected within the last so many microseconds, in this session. Server
// thread.
bool capture_pace_input_within(uint64_t us);

// Something came that the pipeline should look at soon, a miss or an acknowledgement that it
// waited for. Any thread.
void capture_pace_news();

} // namespace host

#endif
