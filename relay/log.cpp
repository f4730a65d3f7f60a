#include "relay/log.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace relay
{

static bool is_quiet;

void log_quietly(bool quiet)
{
    is_quiet = quiet;
}

void log(level importance, const std::string &text)
{
    if (is_quiet && importance == level::info)
        return;
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const int ms = (int)(duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000);
    // gmtime's buffer is its own; only the relay's one thread logs.
    char when[32];
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S", std::gmtime(&seconds));
    std::fprintf(stderr, "%s.%03dZ %s\n", when, ms, text.c_str());
}

} // namespace relay
