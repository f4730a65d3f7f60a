#include "tests/fakes/host_switches.h"

#include "identity/host_identity.h"

int32_t host_switch_text_layer = 1;
int32_t host_switch_window_list = 0;

int32_t host_get_text_layer_enabled()
{
    return host_switch_text_layer;
}

int32_t host_get_window_list_enabled()
{
    return host_switch_window_list;
}
