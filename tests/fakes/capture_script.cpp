#include "tests/fakes/capture_script.h"

std::function<host::capture_result()> capture_script_step;
std::function<void()> capture_script_start;
bool capture_script_duplicates;

namespace host
{

int capture_start()
{
    if (capture_script_start)
        capture_script_start();
    return 0;
}

bool capture_is_duplication()
{
    return capture_script_duplicates;
}

capture_result capture_step()
{
    return capture_script_step ? capture_script_step() : CAPTURE_NOTHING;
}

} // namespace host
