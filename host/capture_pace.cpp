// The rhythm of screen copies.
//
// A copy of the whole screen is the price of looking whether anything changed, and a host
// mostly shows a screen at rest. So copies become rarer when nothing has happened for some
// seconds: no input, no frame, nothing that the viewer said and the pipeline waited for. The
// first of these brings the usual pace back within the pause that is under way. Only what
// changes unprompted on a resting screen shows later, by a few hundredths of a second.
//
// An input, on the other hand, usually has an answer on the screen within a few
// milliseconds, and the person who made it looks at nothing else. So copies follow quickly
// until one taken after the input has brought a change, or long enough for there to be none.
//
// The control thread tells of input and messages; all the rest is the server thread's.
#include "host/capture_pace.h"

#include "host/server_wake.h"
#include "protocol/clock.h"

#include <atomic>

namespace host
{

static struct {
    // By clock_us. Single words without a lock: an older value than the newest costs a pause
    // of the wrong length at worst, and waking makes the server thread look again.
    std::atomic<uint64_t> input_us;    // last input; 0: none in this session
    std::atomic<uint64_t> activity_us; // last anything

    // Server thread only: values of input_us.
    uint64_t copied_after_us; // when the last copy began
    uint64_t answered_us;     // that a changed picture followed
} pace;

uint64_t copy_pause_us(uint64_t input_age_us, uint64_t activity_age_us)
{
    if (input_age_us < INPUT_ANSWER_US)
        return COPY_PAUSE_INPUT_US;
    if (activity_age_us >= LONG_REST_US)
        return COPY_PAUSE_LONG_REST_US;
    if (activity_age_us >= REST_US)
        return COPY_PAUSE_RESTING_US;
    return COPY_PAUSE_US;
}

// Another thread may have read the clock later than this one.
static uint64_t age_us(uint64_t now_us, uint64_t then_us)
{
    return now_us > then_us ? now_us - then_us : 0;
}

void capture_pace_start()
{
    pace.input_us = 0;
    pace.copied_after_us = 0;
    pace.answered_us = 0;
    pace.activity_us = clock_us();
}

void capture_pace_wait(uint64_t copy_end_us)
{
    for (;;) {
        uint64_t now = clock_us();
        uint64_t input = pace.input_us;
        uint64_t input_age = input == pace.answered_us ? INPUT_ANSWERED : age_us(now, input);
        uint64_t pause = copy_pause_us(input_age, age_us(now, pace.activity_us));
        uint64_t gone = age_us(now, copy_end_us);
        if (gone >= pause) {
            pace.copied_after_us = input;
            return;
        }
        server_pause(pause - gone);
    }
}

void capture_pace_frame(bool picture)
{
    pace.activity_us = clock_us();
    // A picture from before the input does not answer it.
    if (picture)
        pace.answered_us = pace.copied_after_us;
}

void capture_pace_input()
{
    uint64_t now = clock_us();
    pace.activity_us = now;
    pace.input_us = now;
    server_wake();
}

bool capture_pace_input_within(uint64_t us)
{
    uint64_t input = pace.input_us;
    return input != 0 && age_us(clock_us(), input) <= us;
}

void capture_pace_news()
{
    pace.activity_us = clock_us();
    server_wake();
}

} // namespace host
