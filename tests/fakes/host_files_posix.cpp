// The identity's file system calls for native builds.
#include "identity/host_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void make_directory(const char *path)
{
    mkdir(path, 0755);
}

FILE *open_private_file(const char *path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return nullptr;
    (void)fchmod(fd, 0600); // a file that existed before kept its mode
    FILE *file = fdopen(fd, "w");
    if (file == nullptr)
        close(fd);
    return file;
}
