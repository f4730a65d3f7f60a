// The identity's file system calls for Windows.
#include "identity/host_files.h"

#include "protocol/win32.h"

#include <fcntl.h>
#include <io.h>
#include <sddl.h>

// Everything for the owner, the system and administrators, and nothing inherited.
static const char PRIVATE_FILE[] = "D:P(A;;FA;;;S-1-3-4)(A;;FA;;;SY)(A;;FA;;;BA)";

void make_directory(const char *path)
{
    CreateDirectoryA(path, nullptr);
}

static HANDLE create_file(const char *path, DWORD access, SECURITY_ATTRIBUTES *security)
{
    return CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE, security,
                       CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

FILE *open_private_file(const char *path)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(PRIVATE_FILE, SDDL_REVISION_1,
                                                              &descriptor, nullptr))
        descriptor = nullptr;

    HANDLE file = INVALID_HANDLE_VALUE;
    if (descriptor != nullptr) {
        // A new file gets its restrictions as it is made. One that existed keeps the old
        // ones then, so they are set once more, while it is still empty.
        SECURITY_ATTRIBUTES security = {sizeof security, descriptor, FALSE};
        file = create_file(path, GENERIC_WRITE | WRITE_DAC, &security);
        if (file != INVALID_HANDLE_VALUE)
            SetKernelObjectSecurity(
                file, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                descriptor);
        LocalFree(descriptor);
    }
    if (file == INVALID_HANDLE_VALUE) // no right to restrict it, but perhaps to write it
        file = create_file(path, GENERIC_WRITE, nullptr);
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
