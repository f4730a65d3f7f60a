// The tile cache's file system calls for Windows.
#include "viewer/cache_disk.h"

#include "protocol/win32.h"

#include <shlobj.h>

namespace viewer
{

static_assert(DISK_FOLDER_SIZE == MAX_PATH);

bool disk_folder(char path[DISK_FOLDER_SIZE])
{
    return SHGetFolderPathA(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path) ==
           S_OK;
}

void disk_make_folder(const char *path)
{
    CreateDirectoryA(path, nullptr);
}

disk_file disk_open(const char *path, uint64_t *length)
{
    HANDLE file = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return DISK_INVALID;
    LARGE_INTEGER size;
    if (!GetFileSizeEx(file, &size)) {
        CloseHandle(file);
        return DISK_INVALID;
    }
    *length = (uint64_t)size.QuadPart;
    return (disk_file)file;
}

disk_file disk_create(const char *path)
{
    constexpr DWORD NO_SHARING = 0;
    return (disk_file)CreateFileA(path, GENERIC_WRITE, NO_SHARING, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
}

static OVERLAPPED at_offset(uint64_t offset)
{
    OVERLAPPED position = {};
    position.Offset = (DWORD)offset;
    position.OffsetHigh = (DWORD)(offset >> 32);
    return position;
}

bool disk_read(disk_file file, uint64_t offset, void *data, size_t n)
{
    OVERLAPPED position = at_offset(offset);
    DWORD done = 0;
    return ReadFile((HANDLE)file, data, (DWORD)n, &done, &position) && done == n;
}

bool disk_write(disk_file file, uint64_t offset, const void *data, size_t n)
{
    OVERLAPPED position = at_offset(offset);
    DWORD done = 0;
    return WriteFile((HANDLE)file, data, (DWORD)n, &done, &position) && done == n;
}

bool disk_set_length(disk_file file, uint64_t length)
{
    LARGE_INTEGER end;
    end.QuadPart = (LONGLONG)length;
    return SetFilePointerEx((HANDLE)file, end, nullptr, FILE_BEGIN) &&
           SetEndOfFile((HANDLE)file);
}

bool disk_flush(disk_file file)
{
    return FlushFileBuffers((HANDLE)file);
}

void disk_close(disk_file file)
{
    CloseHandle((HANDLE)file);
}

bool disk_replace(const char *from, const char *to)
{
    return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
}

void disk_remove(const char *path)
{
    DeleteFileA(path);
}

} // namespace viewer
