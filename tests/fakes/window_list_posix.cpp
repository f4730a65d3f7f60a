// A machine on which no window shows.
#include "host/window_list.h"

void host::window_list_enumerate()
{
}
