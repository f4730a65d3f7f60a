// Loading from the system's folder alone.
//
// The library is named by its full path: a bare name would be answered with whatever library
// of that name is loaded already, from wherever it came. The flag does the same for what the
// library in turn imports. Windows 7 knows the flag since an update of 2011; without it the
// call is refused, and the older flag at least starts such searches in the library's folder,
// which is the system's, and leaves the executable's out.
#include "protocol/system_library.h"

#include "protocol/win32.h"

#include <wchar.h>

void system_library_restrict()
{
    SetDllDirectoryW(L""); // the current directory; for systems without the next
    using set_directories = BOOL(WINAPI *)(DWORD);
    set_directories set = nullptr;
    if (HMODULE kernel = GetModuleHandleW(L"kernel32.dll"))
        set = (set_directories)(void *)GetProcAddress(kernel, "SetDefaultDllDirectories");
    if (set)
        set(LOAD_LIBRARY_SEARCH_SYSTEM32);
}

static HMODULE load(const wchar_t *library)
{
    wchar_t path[MAX_PATH];
    UINT folder = GetSystemDirectoryW(path, MAX_PATH);
    if (folder == 0 || folder + 1 + wcslen(library) >= MAX_PATH) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return nullptr;
    }
    path[folder] = L'\\';
    wcscpy(path + folder + 1, library);
    HMODULE module = LoadLibraryExW(path, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (!module && GetLastError() == ERROR_INVALID_PARAMETER)
        module = LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    return module;
}

void *system_library_function(const wchar_t *library, const char *function)
{
    HMODULE module = load(library);
    return module ? (void *)GetProcAddress(module, function) : nullptr;
}
