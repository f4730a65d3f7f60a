// A library that lies where a program looks before it looks in the system's folder. It is
// built once and planted under several names; loaded, it leaves a file beside itself, named
// after itself and the program that loaded it. Its functions are those that planted_control
// imports from the real ones.
#include "protocol/win32.h"

#include <stdio.h>
#include <string.h>

static void leave_mark(HINSTANCE self)
{
    char program[MAX_PATH] = {}, mark[2 * MAX_PATH + 16] = {};
    GetModuleFileNameA(nullptr, program, MAX_PATH - 1);
    GetModuleFileNameA(self, mark, MAX_PATH - 1);
    const char *name = strrchr(program, '\\');
    strcat(mark, ".in.");
    strcat(mark, name ? name + 1 : program);
    if (FILE *file = fopen(mark, "w"))
        fclose(file);
}

extern "C" {

BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, void *)
{
    if (reason == DLL_PROCESS_ATTACH)
        leave_mark(self);
    return TRUE;
}

#define PLANTED(name)                                                                          \
    __declspec(dllexport) int name();                                                          \
    int name()                                                                                 \
    {                                                                                          \
        return -1;                                                                             \
    }

PLANTED(BCryptGenRandom)
PLANTED(timeBeginPeriod)
PLANTED(D3D11CreateDevice)
PLANTED(CreateDXGIFactory1)
PLANTED(DwmFlush)
}
