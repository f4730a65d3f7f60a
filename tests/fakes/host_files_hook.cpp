#include "tests/fakes/host_files_hook.h"

#include "identity/host_files.h"

#include <filesystem>

void (*host_files_on_open)();

void make_directory(const char *path)
{
    std::error_code ignored;
    std::filesystem::create_directory(path, ignored);
}

FILE *open_private_file(const char *path)
{
    if (host_files_on_open != nullptr) {
        void (*call)() = host_files_on_open;
        host_files_on_open = nullptr;
        call();
    }
    return fopen(path, "w");
}
