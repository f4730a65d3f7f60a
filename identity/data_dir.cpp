// The data directory and the paths in it.
//
// Nothing is kept: every caller that opens a file builds the path afresh and creates the
// directory first, so one that was deleted while the program runs comes back with the next
// file. The separator is a backslash on every platform, since the paths are Windows paths;
// a native build merely makes file names that contain one.
#include "identity/data_dir.h"

#include "identity/host_files.h"

#include <stdio.h>
#include <stdlib.h>

void data_dir_make(char path[DATA_DIR_SIZE])
{
    const char *base = getenv("PROGRAMDATA");
    if (base == nullptr)
        base = "C:\\ProgramData";
    snprintf(path, DATA_DIR_SIZE, "%s\\qv", base);
    make_directory(path);
}

void data_dir_id_path(char path[DATA_FILE_SIZE])
{
    char directory[DATA_DIR_SIZE];
    data_dir_make(directory);
    snprintf(path, DATA_FILE_SIZE, "%s\\id.txt", directory);
}

void data_dir_host_path(char path[DATA_FILE_SIZE])
{
    char directory[DATA_DIR_SIZE];
    data_dir_make(directory);
    snprintf(path, DATA_FILE_SIZE, "%s\\host.txt", directory);
}

void data_dir_relay_path(char path[DATA_FILE_SIZE])
{
    char directory[DATA_DIR_SIZE];
    data_dir_make(directory);
    snprintf(path, DATA_FILE_SIZE, "%s\\relay.txt", directory);
}
