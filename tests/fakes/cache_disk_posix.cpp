// The tile cache's files for native builds.
//
// The folder is what QV_TEST_CACHE_FOLDER says; without it there is one in which nothing can
// be found or made. A lock on the file stands for the exclusive use that Windows gives.
#include "viewer/cache_disk.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace viewer
{

bool disk_folder(char path[DISK_FOLDER_SIZE])
{
    const char *folder = getenv("QV_TEST_CACHE_FOLDER");
    int n = snprintf(path, DISK_FOLDER_SIZE, "%s", folder ? folder : "/nonexistent/cache");
    return n < (int)DISK_FOLDER_SIZE;
}

void disk_make_folder(const char *path)
{
    mkdir(path, 0700);
}

disk_file disk_open(const char *path, uint64_t *length)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    struct stat file;
    if (fd < 0 || fstat(fd, &file) != 0 || !S_ISREG(file.st_mode)) {
        if (fd >= 0)
            close(fd);
        return DISK_INVALID;
    }
    *length = (uint64_t)file.st_size;
    return fd;
}

// Opens the file that has this name and keeps others from opening it so; -1 when it is not
// to be had, or has lost the name meanwhile.
static int open_alone(const char *path, int flags)
{
    int fd = open(path, flags | O_CLOEXEC, 0600);
    struct stat opened, named;
    if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &opened) == 0 &&
        stat(path, &named) == 0 && opened.st_ino == named.st_ino)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

disk_file disk_create(const char *path)
{
    int fd = open_alone(path, O_RDWR | O_CREAT);
    if (fd >= 0 && ftruncate(fd, 0) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

bool disk_read(disk_file file, uint64_t offset, void *data, size_t n)
{
    size_t done = 0;
    while (done < n) {
        ssize_t some = pread((int)file, (char *)data + done, n - done, (off_t)(offset + done));
        if (some < 0 && errno == EINTR)
            continue;
        if (some <= 0)
            return false;
        done += (size_t)some;
    }
    return true;
}

bool disk_write(disk_file file, uint64_t offset, const void *data, size_t n)
{
    size_t done = 0;
    while (done < n) {
        ssize_t some =
            pwrite((int)file, (const char *)data + done, n - done, (off_t)(offset + done));
        if (some < 0 && errno == EINTR)
            continue;
        if (some <= 0)
            return false;
        done += (size_t)some;
    }
    return true;
}

bool disk_set_length(disk_file file, uint64_t length)
{
    return ftruncate((int)file, (off_t)length) == 0;
}

bool disk_flush(disk_file file)
{
    return fsync((int)file) == 0;
}

void disk_close(disk_file file)
{
    close((int)file);
}

bool disk_replace(const char *from, const char *to)
{
    int fd = open_alone(from, O_RDONLY);
    if (fd < 0)
        return false;
    bool done = rename(from, to) == 0;
    close(fd);
    return done;
}

void disk_remove(const char *path)
{
    int fd = open_alone(path, O_RDONLY);
    if (fd < 0)
        return;
    unlink(path);
    close(fd);
}

} // namespace viewer
