// Stands in for netsh.exe: writes down how it was called, a line a call, in C:\netsh.txt.
#include "protocol/win32.h"

#include <stdio.h>

int main()
{
    FILE *file = fopen("C:\\netsh.txt", "a");
    if (file == nullptr)
        return 2;
    fprintf(file, "%s\n", GetCommandLineA());
    return fclose(file) == 0 ? 0 : 2;
}
