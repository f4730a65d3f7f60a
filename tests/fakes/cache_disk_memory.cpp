#include "tests/fakes/cache_disk_memory.h"

#include "viewer/cache_disk.h"

#include <mutex>
#include <string.h>

disk_memory_record disk_memory = {.files = {},
                                  .no_folder = false,
                                  .read_only = true,
                                  .hook = {},
                                  .calls = {},
                                  .created = 0,
                                  .replaced = 0};

static constexpr int OPEN_MAX_FILES = 8;
static std::mutex mutex; // the files; the hook runs without it
static std::string open_names[OPEN_MAX_FILES];

void disk_memory_reset(bool read_only)
{
    disk_memory.files.clear();
    disk_memory.no_folder = false;
    disk_memory.read_only = read_only;
    disk_memory.hook = nullptr;
    disk_memory.calls.clear();
    disk_memory.created = 0;
    disk_memory.replaced = 0;
    for (std::string &name : open_names)
        name.clear();
}

static bool allowed(const char *what, uint64_t offset, uint64_t n)
{
    if (strcmp(what, "read") != 0 && strcmp(what, "write") != 0)
        disk_memory.calls += std::string(what) + " ";
    return !disk_memory.hook || disk_memory.hook({what, offset, n});
}

static viewer::disk_file open_as(const std::string &path)
{
    for (int i = 0; i < OPEN_MAX_FILES; i++) {
        if (open_names[i].empty()) {
            open_names[i] = path;
            return i;
        }
    }
    return viewer::DISK_INVALID;
}

namespace viewer
{

bool disk_folder(char path[DISK_FOLDER_SIZE])
{
    strcpy(path, "memory");
    return !disk_memory.no_folder;
}

void disk_make_folder(const char *path)
{
    disk_memory.calls += std::string("folder=") + path + " ";
}

disk_file disk_open(const char *path, uint64_t *length)
{
    if (!allowed("open", 0, 0))
        return DISK_INVALID;
    std::lock_guard<std::mutex> hold(mutex);
    auto file = disk_memory.files.find(path);
    if (file == disk_memory.files.end())
        return DISK_INVALID;
    *length = file->second.size();
    return open_as(path);
}

disk_file disk_create(const char *path)
{
    if (!allowed("create", 0, 0) || disk_memory.read_only)
        return DISK_INVALID;
    std::lock_guard<std::mutex> hold(mutex);
    for (const std::string &name : open_names)
        if (name == path)
            return DISK_INVALID;
    disk_memory.files[path] = {};
    disk_memory.created++;
    return open_as(path);
}

bool disk_read(disk_file file, uint64_t offset, void *data, size_t n)
{
    bool whole = allowed("read", offset, n);
    std::lock_guard<std::mutex> hold(mutex);
    const sparse_bytes &content = disk_memory.files[open_names[file]];
    if (!whole) {
        content.read(offset, data, n / 2); // as far as the disk got
        return false;
    }
    if (offset > content.size() || n > content.size() - offset)
        return false;
    content.read(offset, data, n);
    return true;
}

bool disk_write(disk_file file, uint64_t offset, const void *data, size_t n)
{
    if (!allowed("write", offset, n))
        return false;
    std::lock_guard<std::mutex> hold(mutex);
    disk_memory.files[open_names[file]].write(offset, data, n);
    return true;
}

bool disk_set_length(disk_file file, uint64_t length)
{
    if (!allowed("length", length, 0))
        return false;
    std::lock_guard<std::mutex> hold(mutex);
    disk_memory.files[open_names[file]].resize(length);
    return true;
}

bool disk_flush(disk_file)
{
    return allowed("flush", 0, 0);
}

void disk_close(disk_file file)
{
    disk_memory.calls += "close ";
    std::lock_guard<std::mutex> hold(mutex);
    open_names[file].clear();
}

bool disk_replace(const char *from, const char *to)
{
    if (!allowed("replace", 0, 0))
        return false;
    std::lock_guard<std::mutex> hold(mutex);
    disk_memory.files[to] = std::move(disk_memory.files[from]);
    disk_memory.files.erase(from);
    disk_memory.replaced++;
    return true;
}

void disk_remove(const char *path)
{
    disk_memory.calls += "remove ";
    std::lock_guard<std::mutex> hold(mutex);
    disk_memory.files.erase(path);
}

} // namespace viewer
