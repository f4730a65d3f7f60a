// The relay's log: one line an event on standard error, with time and subject.
//
//   2026-11-21T14:55:01.123Z host 17 of 192.0.2.7: waits in room '123456789' as 'OFFICE'
#ifndef QV_RELAY_LOG_H
#define QV_RELAY_LOG_H

#include <string>

namespace relay
{

enum class level {
    info,    // left out when quiet
    warning, // somebody was refused, something went wrong
};

// Whether info lines are left out. Set once, before the first line.
void log_quietly(bool quiet);

// text must be printable; parts of it that peers sent go through printable().
void log(level importance, const std::string &text);

} // namespace relay

#endif
