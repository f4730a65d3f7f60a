// The identity's file system calls for Windows.
#include "identity/host_files.h"

#include "protocol/win32.h"

#include <fcntl.h>
#include <io.h>
#include <sddl.h>
#include <stdint.h>
#include <string.h>

// Everything for the owner, the system and administrators, and nothing inherited.
static const char PRIVATE_FILE[] = "D:P(A;;FA;;;S-1-3-4)(A;;FA;;;SY)(A;;FA;;;BA)";

void make_directory(const char *path)
{
    CreateDirectoryA(path, nullptr);
}

// Whether owner is what the process's token names: its user, or whom its new files belong to.
static bool is_named(PSID owner, HANDLE token, TOKEN_INFORMATION_CLASS kind)
{
    static_assert(sizeof(TOKEN_USER) >= sizeof(TOKEN_OWNER));
    alignas(TOKEN_USER) uint8_t entry[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    if (!GetTokenInformation(token, kind, entry, sizeof entry, &size))
        return false;
    PSID sid = nullptr;
    memcpy(&sid, entry, sizeof sid); // both kinds begin with it
    return EqualSid(owner, sid);
}

// Whether a file belongs to somebody who is neither this user nor the administrators nor the
// system. An owner may open a file to himself again whatever its access list says.
static bool is_strangers(HANDLE file)
{
    union {
        SECURITY_DESCRIPTOR descriptor;
        uint8_t room[sizeof(SECURITY_DESCRIPTOR) + SECURITY_MAX_SID_SIZE];
    } security;
    DWORD size = 0;
    PSID owner = nullptr;
    BOOL defaulted = FALSE;
    if (!GetKernelObjectSecurity(file, OWNER_SECURITY_INFORMATION, &security, sizeof security,
                                 &size) ||
        !GetSecurityDescriptorOwner(&security.descriptor, &owner, &defaulted) ||
        owner == nullptr || IsWellKnownSid(owner, WinWorldSid))
        return false; // a file system that knows no owners
    if (IsWellKnownSid(owner, WinLocalSystemSid) ||
        IsWellKnownSid(owner, WinBuiltinAdministratorsSid))
        return false;

    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return true;
    const bool ours = is_named(owner, token, TokenUser) || is_named(owner, token, TokenOwner);
    CloseHandle(token);
    return !ours;
}

static HANDLE create_file(const char *path, DWORD access, DWORD how,
                          SECURITY_ATTRIBUTES *security)
{
    return CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE, security, how,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Opens the file, emptied, with the descriptor's restrictions as far as access allows.
static HANDLE create_restricted(const char *path, DWORD access, PSECURITY_DESCRIPTOR descriptor)
{
    SECURITY_ATTRIBUTES security = {sizeof security, descriptor, FALSE};
    HANDLE file = create_file(path, access, CREATE_ALWAYS, &security);
    if (file == INVALID_HANDLE_VALUE)
        return file;
    if (is_strangers(file)) {
        // A new one is ours. Where theirs cannot be removed, nothing is written.
        CloseHandle(file);
        DeleteFileA(path);
        return create_file(path, access, CREATE_NEW, &security);
    }
    // A new file got its restrictions as it was made. One that existed kept the old ones, so
    // they are set once more, while it is still empty.
    SetKernelObjectSecurity(
        file, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, descriptor);
    return file;
}

FILE *open_private_file(const char *path)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(PRIVATE_FILE, SDDL_REVISION_1,
                                                              &descriptor, nullptr))
        return nullptr;
    constexpr DWORD write = GENERIC_WRITE | READ_CONTROL;
    HANDLE file = create_restricted(path, write | WRITE_DAC, descriptor);
    if (file == INVALID_HANDLE_VALUE) // no right to restrict it, but perhaps to write it
        file = create_restricted(path, write, descriptor);
    LocalFree(descriptor);
    if (file == INVALID_HANDLE_VALUE)
        return nullptr;

    const int fd = _open_osfhandle((intptr_t)file, _O_WRONLY | _O_TEXT);
    if (fd < 0) {
        CloseHandle(file);
        return nullptr;
    }
    FILE *stream = _fdopen(fd, "w");
    if (stream == nullptr)
        _close(fd);
    return stream;
}
