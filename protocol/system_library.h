// Libraries of the system, from the system's folder and from nowhere else.
//
// Windows looks for most libraries beside the executable first, so that a file of the right
// name in a folder of downloads would run inside this program. Only the "known" ones, which
// the system maps itself, are safe to import; tools/check_imports holds the programs to
// those. Functions of all others (bcrypt, winmm, d3d11, dwmapi, ...) are looked up here, at
// run time, and the caller copes with a machine that has none.
#ifndef QV_PROTOCOL_SYSTEM_LIBRARY_H
#define QV_PROTOCOL_SYSTEM_LIBRARY_H

// Takes the executable's folder, the current directory and PATH out of the search for
// libraries that any code of this process loads by a bare name. First thing in main.
void system_library_restrict();

// The address of a function; library is a bare file name ("winmm.dll"). Null when either is
// missing: GetLastError tells why. The library stays loaded: its threads may outlast the
// caller. Any thread.
[[nodiscard]] void *system_library_function(const wchar_t *library, const char *function);

#endif
