// The file system calls that the tile cache's file needs from the platform.
//
// Plain calls of whole operations: each either does all that it says or reports failure.
// Any thread; a file is used by one thread at a time.
#ifndef QV_VIEWER_CACHE_DISK_H
#define QV_VIEWER_CACHE_DISK_H

#include <stddef.h>
#include <stdint.h>

namespace viewer
{

using disk_file = intptr_t;
constexpr disk_file DISK_INVALID = -1;

constexpr size_t DISK_FOLDER_SIZE = 260;

// The user's folder for data of local applications; false when there is none.
[[nodiscard]] bool disk_folder(char path[DISK_FOLDER_SIZE]);

// Creates one folder. The result does not matter: an existing one is the normal case.
void disk_make_folder(const char *path);

// Opens a file for reading, so that others may still read, replace and delete it. *length is
// its size. DISK_INVALID when there is none or it cannot be opened.
[[nodiscard]] disk_file disk_open(const char *path, uint64_t *length);

// Makes a file, or empties the one that is there, and opens it for writing. Until it is
// closed nobody else can open, rename or delete it. DISK_INVALID when it cannot be had so.
[[nodiscard]] disk_file disk_create(const char *path);

// n bytes at an offset. Reading to past the end fails.
[[nodiscard]] bool disk_read(disk_file file, uint64_t offset, void *data, size_t n);
[[nodiscard]] bool disk_write(disk_file file, uint64_t offset, const void *data, size_t n);

// Gives a new file its length; what is never written in it reads as zeros.
[[nodiscard]] bool disk_set_length(disk_file file, uint64_t length);

// Waits until what was written would survive a loss of power.
[[nodiscard]] bool disk_flush(disk_file file);

void disk_close(disk_file file);

// Renames a closed file over another one (or none), in one step: whoever opens `to` at any
// moment, or after a crash, finds the old file or the new one, whole.
[[nodiscard]] bool disk_replace(const char *from, const char *to);

// Deletes a closed file, if that can be done.
void disk_remove(const char *path);

} // namespace viewer

#endif
