// What the tile cache asks of the file system, on a real one.
#include "viewer/cache_disk.h"

#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#include <string.h>
#include <string>

using namespace viewer;

namespace
{

// Two paths in a folder of their own.
struct temp_files {
    temp_data_dir data;
    std::string temporary = data.program_data + "/tiles.bin.tmp";
    std::string final = data.program_data + "/tiles.bin";

    // Writes a file of this text.
    void make(const std::string &path, const char *text) const
    {
        disk_file file = disk_create(path.c_str());
        REQUIRE(file != DISK_INVALID);
        CHECK(disk_write(file, 0, text, strlen(text)));
        CHECK(disk_flush(file));
        disk_close(file);
    }

    static std::string read(const std::string &path)
    {
        return temp_data_dir::read_file(path);
    }
};

} // namespace

TEST_CASE("a file is written and read in any order, and its gaps are zeros")
{
    temp_files t;
    t.make(t.temporary, "something longer that was there before");
    disk_file file = disk_create(t.temporary.c_str());
    REQUIRE(file != DISK_INVALID);
    CHECK(disk_set_length(file, 12));
    CHECK(disk_write(file, 8, "zz", 2));
    CHECK(disk_write(file, 1, "abc", 3));
    CHECK(disk_flush(file));
    disk_close(file);
    CHECK(t.read(t.temporary) == std::string("\0abc\0\0\0\0zz\0\0", 12));

    uint64_t length = 0;
    file = disk_open(t.temporary.c_str(), &length);
    REQUIRE(file != DISK_INVALID);
    CHECK(length == 12);
    char two[3] = "--";
    CHECK(disk_read(file, 8, two, 2));
    CHECK(std::string(two) == "zz");
    CHECK(disk_read(file, 2, two, 2));
    CHECK(std::string(two) == "bc");
    CHECK_FALSE(disk_read(file, 11, two, 2)); // one byte past the end
    CHECK_FALSE(disk_read(file, 12, two, 1));
    disk_close(file);
}

TEST_CASE("what does not exist is neither opened nor made")
{
    temp_files t;
    uint64_t length = 0;
    CHECK(disk_open(t.final.c_str(), &length) == DISK_INVALID);
    CHECK(disk_open(t.data.program_data.c_str(), &length) == DISK_INVALID); // a folder
    CHECK(disk_create((t.data.program_data + "/absent/tiles.bin").c_str()) == DISK_INVALID);
    CHECK_FALSE(disk_replace(t.temporary.c_str(), t.final.c_str()));
    disk_remove(t.final.c_str()); // harmless
    disk_make_folder((t.data.program_data + "/made").c_str());
    disk_make_folder((t.data.program_data + "/made").c_str()); // again: harmless
    t.make(t.data.program_data + "/made/tiles.bin", "x");
}

TEST_CASE("a file that is being written cannot be had, renamed or deleted by another")
{
    temp_files t;
    t.make(t.final, "old");
    disk_file writing = disk_create(t.temporary.c_str());
    REQUIRE(writing != DISK_INVALID);
    CHECK(disk_write(writing, 0, "new", 3));
    CHECK(disk_create(t.temporary.c_str()) == DISK_INVALID);
    CHECK_FALSE(disk_replace(t.temporary.c_str(), t.final.c_str()));
    disk_remove(t.temporary.c_str());
    disk_close(writing);
    CHECK(t.read(t.temporary) == "new");
    CHECK(t.read(t.final) == "old");
    t.make(t.temporary, "now it can"); // be had again
}

TEST_CASE("a file takes another one's place, or an empty one, and can be deleted")
{
    temp_files t;
    for (const char *text : {"first", "second"}) {
        t.make(t.temporary, text);
        CHECK(disk_replace(t.temporary.c_str(), t.final.c_str()));
        CHECK(t.read(t.final) == text);
        CHECK(t.read(t.temporary) == "(absent)");
    }
    disk_remove(t.final.c_str());
    CHECK(t.read(t.final) == "(absent)");
}

TEST_CASE("two may read a file at once")
{
    temp_files t;
    t.make(t.final, "shared");
    uint64_t length = 0;
    disk_file one = disk_open(t.final.c_str(), &length);
    disk_file other = disk_open(t.final.c_str(), &length);
    REQUIRE(one != DISK_INVALID);
    REQUIRE(other != DISK_INVALID);
    char text[7] = "";
    CHECK(disk_read(one, 0, text, 6));
    CHECK(std::string(text) == "shared");
    disk_close(one);
    disk_close(other);
}
