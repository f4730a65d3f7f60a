// The computer's name for native tests: the host name, cut to fit.
#include "protocol/computer_name.h"

#include <unistd.h>

void computer_name_get(char name[NAME_BYTES])
{
    char text[256] = {};
    memset(name, 0, NAME_BYTES);
    if (gethostname(text, sizeof text - 1) == 0)
        copy_text(name, NAME_BYTES, text);
}
