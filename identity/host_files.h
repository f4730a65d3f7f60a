// The file system calls that the identity needs from the platform.
#ifndef QV_IDENTITY_HOST_FILES_H
#define QV_IDENTITY_HOST_FILES_H

#include <stdio.h>

// Creates one directory. The result does not matter: an existing one is the normal case.
void make_directory(const char *path);

// Opens a file for writing, emptied, as a text stream, and restricts it to its owner, the
// system and administrators as far as the file system can, also when it existed before. One
// that belongs to another user is deleted and made anew. Null when it cannot be opened, or
// stays the other's; the caller closes it with fclose.
FILE *open_private_file(const char *path);

#endif
