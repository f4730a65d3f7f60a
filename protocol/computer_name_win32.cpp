// The computer's name as the system knows it (its NetBIOS name, at most 15 characters).
#include "protocol/computer_name.h"

#include "protocol/win32.h"

void computer_name_get(char name[NAME_BYTES])
{
    char text[NAME_BYTES] = {};
    DWORD size = sizeof text;
    memset(name, 0, NAME_BYTES);
    if (GetComputerNameA(text, &size))
        copy_text(name, NAME_BYTES, text);
}
