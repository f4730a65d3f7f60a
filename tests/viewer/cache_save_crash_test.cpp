// The cache file when its writer is killed, has no room, or is not the only one: whatever
// happens, there is a whole file, the old one or a new one, and each key has its own pixels.
//
// Native only
// Fakes: viewer_channel_memory window_posts
#include "viewer/tile_cache.h"

#include "protocol/bytes.h"
#include "protocol/clock.h"
#include "tests/test.h"

#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace viewer;

namespace
{

// A folder for the cache, in memory where the system has a place for that.
struct cache_folder {
    std::string root;

    cache_folder()
    {
        char name[64];
        snprintf(name, sizeof name, "%s/qv_cache_XXXXXX",
                 access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
        REQUIRE(mkdtemp(name));
        root = name;
        use(root + "/local");
        lock_init(&frame_lock);
    }

    ~cache_folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }

    static void use(const std::string &folder)
    {
        setenv("QV_TEST_CACHE_FOLDER", folder.c_str(), 1);
    }

    std::string path() const
    {
        return root + "/local\\qv\\tiles.bin"; // natively one name with backslashes
    }
};

void open_cache()
{
    freopen("/dev/null", "w", stdout) ? (void)0 : abort(); // of a child: its line is noise
    tile_cache_open();
}

// Stores `count` tiles of a generation: the pixels are made of the hash, and no two
// generations have a hash in common.
void store(uint64_t generation, uint32_t count)
{
    std::vector<uint8_t> pixels(TILE_BYTES);
    for (uint32_t i = 0; i < count; i++) {
        uint64_t hash = (generation << 32 | i) + 1;
        for (size_t at = 0; at < pixels.size(); at += 8)
            store_le64(&pixels[at], hash);
        lock_enter(&frame_lock);
        tile_cache_insert(hash, pixels.data(), TILE_ROW_BYTES);
        lock_leave(&frame_lock);
    }
}

bool save()
{
    lock_enter(&frame_lock);
    tile_cache_save();
    bool done = !tile_cache.cache_dirty;
    lock_leave(&frame_lock);
    return done;
}

// What the file holds: the keys, -1 when it is not whole or a key has other pixels.
int keys_in(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY);
    struct stat file;
    if (fd < 0 || fstat(fd, &file) != 0 || file.st_size != 134283280)
        return -1;
    std::vector<uint8_t> head(65552), pixels(TILE_BYTES), expected(TILE_BYTES);
    bool right = pread(fd, head.data(), head.size(), 0) == (ssize_t)head.size() &&
                 load_le32(head.data()) == 0x51564331;
    int keys = 0;
    for (uint32_t slot = 0; right && slot < 8192; slot++) {
        uint64_t key = load_le64(&head[16 + slot * 8]);
        if (key == 0)
            continue;
        keys++;
        for (size_t at = 0; at < expected.size(); at += 8)
            store_le64(&expected[at], key);
        right = pread(fd, pixels.data(), pixels.size(), 65552 + (off_t)slot * 16384) ==
                    (ssize_t)pixels.size() &&
                pixels == expected;
    }
    close(fd);
    return right ? keys : -1;
}

// Runs a routine in a process of its own, which ends with what it returns.
template <class routine> pid_t in_child(routine run)
{
    fflush(stdout);
    pid_t child = fork();
    REQUIRE(child >= 0);
    if (child == 0) {
        alarm(200);
        _exit(run());
    }
    return child;
}

int status_of(pid_t child)
{
    int status = -1;
    REQUIRE(waitpid(child, &status, 0) == child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace

TEST_CASE("a viewer that is killed while it saves leaves a whole file")
{
    cache_folder folder;
    test_random random = test_random_seeded("kills");
    REQUIRE(status_of(in_child([] {
                open_cache();
                store(1, 2000);
                return save() ? 0 : 1;
            })) == 0);
    REQUIRE(keys_in(folder.path()) == 2000);

    int left_behind = 0;
    for (int round = 0; round < 25; round++) {
        int started[2];
        REQUIRE(pipe(started) == 0);
        pid_t child = in_child([&] {
            open_cache();
            for (uint64_t generation = 2;; generation++) {
                tile_cache_save_start(); // and on, over its head
                store(generation + 100 * (uint64_t)round, 2000);
                (void)!write(started[1], "s", 1);
                if (generation % 2) {
                    tile_cache_save_stop();
                    (void)save();
                }
            }
            return 0;
        });
        char byte;
        REQUIRE(read(started[0], &byte, 1) == 1);
        usleep((useconds_t)random.below(100000));
        kill(child, SIGKILL);
        CHECK(status_of(child) == -SIGKILL);
        close(started[0]);
        close(started[1]);
        left_behind += access((folder.path() + ".tmp").c_str(), F_OK) == 0;
        CHECK(keys_in(folder.path()) >= 2000);
    }
    CHECK(left_behind > 0); // the blow did fall while a file was being written

    // What was left behind stands in nobody's way.
    CHECK(status_of(in_child([] {
              open_cache();
              store(99999, 10);
              return save() ? 0 : 1;
          })) == 0);
    CHECK(keys_in(folder.path()) >= 2000);
    CHECK(access((folder.path() + ".tmp").c_str(), F_OK) != 0);
}

TEST_CASE("a limit on the size of files leaves the old file, and the next save works")
{
    cache_folder folder;
    CHECK(status_of(in_child([&] {
              open_cache();
              store(1, 100);
              if (!save())
                  return 1;
              store(2, 200);
              signal(SIGXFSZ, SIG_IGN);
              const rlimit tight = {50000000, RLIM_INFINITY};
              setrlimit(RLIMIT_FSIZE, &tight);
              if (save() || keys_in(folder.path()) != 100)
                  return 2;
              if (access((folder.path() + ".tmp").c_str(), F_OK) == 0)
                  return 3;
              const rlimit free_again = {RLIM_INFINITY, RLIM_INFINITY};
              setrlimit(RLIMIT_FSIZE, &free_again);
              if (!save() || keys_in(folder.path()) != 300)
                  return 4;
              return 0;
          })) == 0);
}

TEST_CASE("a disk that is full leaves the old file, and the next save works")
{
    constexpr int REFUSED = 77; // no file system of one's own to be had here
    cache_folder folder;
    int status = status_of(in_child([&] {
        // 1000 tiles take 16 MB; 3000 beside them do not fit.
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "", MS_REC | MS_PRIVATE, "") != 0 ||
            mount("none", folder.root.c_str(), "tmpfs", 0, "size=45m") != 0)
            return REFUSED;
        open_cache();
        store(1, 1000);
        if (!save() || keys_in(folder.path()) != 1000)
            return 1;
        store(2, 2000);
        if (save() || keys_in(folder.path()) != 1000)
            return 2;
        if (access((folder.path() + ".tmp").c_str(), F_OK) == 0)
            return 3;
        if (mount("none", folder.root.c_str(), "tmpfs", MS_REMOUNT, "size=200m") != 0)
            return 4;
        if (!save() || keys_in(folder.path()) != 3000)
            return 5;
        return 0;
    }));
    if (status == REFUSED)
        MESSAGE("no mount namespace here: not tested");
    else
        CHECK(status == 0);
}

TEST_CASE("two viewers of one user never mix what they write")
{
    cache_folder folder;
    pid_t viewers[2];
    for (uint64_t i = 0; i < 2; i++) {
        viewers[i] = in_child([=] {
            open_cache();
            int done = 0;
            for (uint64_t generation = 1; generation <= 20; generation++) {
                store(generation * 2 + i, 1500);
                done += save();
            }
            // The other's writing can keep this one from it, but it does not end so.
            for (int tries = 0; tries < 10000 && done == 0; tries++, clock_sleep_ms(1))
                done += save();
            return done > 0 ? 0 : 1;
        });
    }
    int looks = 0;
    while (access(folder.path().c_str(), F_OK) != 0 &&
           waitpid(viewers[0], nullptr, WNOHANG) == 0)
        clock_sleep_ms(1);
    for (; looks < 10; looks++)
        CHECK(keys_in(folder.path()) >= 1500);
    for (pid_t viewer : viewers)
        CHECK(status_of(viewer) == 0);
    CHECK(keys_in(folder.path()) >= 1500);
    CHECK(access((folder.path() + ".tmp").c_str(), F_OK) != 0);
}
