#include "tests/fakes/cursor_script.h"

host::cursor_state cursor_script_now;

namespace host
{

cursor_state cursor_read()
{
    return cursor_script_now;
}

} // namespace host
