// Loads a library the ways that a program can, for planted_test.py:
//
//   planted_loads bare NAME           by its bare name, as any code of a process may
//   planted_loads restricted NAME     the same after system_library_restrict
//   planted_loads system NAME ENTRY   system_library_function
//
// Prints where the library that it got lies; ends with 1 when there is none.
#include "protocol/system_library.h"
#include "protocol/win32.h"

#include <stdio.h>
#include <string.h>
#include <wchar.h>

int wmain(int argc, wchar_t **argv)
{
    if (argc < 3)
        return 2;
    HMODULE module = nullptr;
    if (wcscmp(argv[1], L"restricted") == 0)
        system_library_restrict();
    if (wcscmp(argv[1], L"system") == 0 && argc == 4) {
        char entry[64] = {};
        WideCharToMultiByte(CP_ACP, 0, argv[3], -1, entry, sizeof entry - 1, nullptr, nullptr);
        void *found = system_library_function(argv[2], entry);
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                               GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           (const wchar_t *)found, &module);
    } else {
        module = LoadLibraryW(argv[2]);
    }
    wchar_t path[MAX_PATH] = {};
    if (!module || GetModuleFileNameW(module, path, MAX_PATH) == 0)
        return 1;
    printf("%ls\n", path);
    return 0;
}
