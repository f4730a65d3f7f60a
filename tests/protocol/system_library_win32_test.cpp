// Windows only
//
// That nothing beside the program is taken is shown by tests/e2e/planted_test.py.
#include "protocol/system_library.h"

#include "protocol/random.h"
#include "protocol/win32.h"
#include "tests/test.h"

#include <string.h>
#include <string>

TEST_CASE("a function is found in the system's folder")
{
    using get_version = DWORD(WINAPI *)(const char *, DWORD *);
    void *found = system_library_function(L"version.dll", "GetFileVersionInfoSizeA");
    REQUIRE(found);
    HMODULE module = nullptr;
    REQUIRE(GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                   GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                               (const char *)found, &module));
    char path[MAX_PATH] = {}, expected[MAX_PATH] = {};
    REQUIRE(GetModuleFileNameA(module, path, MAX_PATH) > 0);
    REQUIRE(GetSystemDirectoryA(expected, MAX_PATH) > 0);
    strcat(expected, "\\version.dll");
    CHECK(_stricmp(path, expected) == 0);
    DWORD handle = 0;
    CHECK(((get_version)found)("no such file", &handle) == 0);
    CHECK(system_library_function(L"version.dll", "GetFileVersionInfoSizeA") == found);
}

TEST_CASE("what is missing is told")
{
    CHECK(system_library_function(L"qv_no_such_library.dll", "function") == nullptr);
    CHECK(GetLastError() == ERROR_MOD_NOT_FOUND);
    CHECK(system_library_function(L"version.dll", "no_such_function") == nullptr);
    CHECK(GetLastError() == ERROR_PROC_NOT_FOUND);
}

TEST_CASE("a name that no path has room for is not found")
{
    std::wstring name(MAX_PATH, L'n');
    CHECK(system_library_function(name.c_str(), "function") == nullptr);
    CHECK(GetLastError() == ERROR_FILENAME_EXCED_RANGE);
}

TEST_CASE("random bytes come, and fill what was asked for and no more")
{
    uint8_t bytes[40] = {};
    CHECK(random_bytes(bytes, 32));
    // 32 zeros in a row come once in 2^256.
    int32_t zeros = 0;
    for (int32_t i = 0; i < 32; i++)
        zeros += bytes[i] == 0;
    CHECK(zeros < 32);
    for (int32_t i = 32; i < 40; i++)
        CHECK(bytes[i] == 0);
    CHECK(random_bytes(bytes, 0));
}
