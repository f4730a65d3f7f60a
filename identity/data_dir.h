// The data directory: where the host keeps its ID, its published host file and its log, and
// where an administrator may say where the relay is.
#ifndef QV_IDENTITY_DATA_DIR_H
#define QV_IDENTITY_DATA_DIR_H

#include <stddef.h>

constexpr size_t DATA_DIR_SIZE = 260;                 // buffer for the directory's path
constexpr size_t DATA_FILE_SIZE = DATA_DIR_SIZE + 16; // and for id.txt and host.txt in it

// Writes the path of the data directory, "%s\qv" under PROGRAMDATA (or C:\ProgramData), and
// creates it (an existing one is the normal case). Any thread.
void data_dir_make(char path[DATA_DIR_SIZE]);

// The paths of the files in it; each call makes the directory first.
void data_dir_id_path(char path[DATA_FILE_SIZE]);
void data_dir_host_path(char path[DATA_FILE_SIZE]);
void data_dir_relay_path(char path[DATA_FILE_SIZE]);

#endif
