#include "identity/host_files.h"

#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

TEST_CASE("a directory is made, and one that exists is left alone")
{
    temp_data_dir temp;
    make_directory(temp.directory().c_str());
    CHECK(std::filesystem::is_directory(temp.directory()));
    temp.write("kept", "x");
    make_directory(temp.directory().c_str());
    CHECK(temp.read("kept") == "x");
}

TEST_CASE("a private file is a text stream")
{
    temp_data_dir temp;
    temp.make();
    FILE *file = open_private_file(temp.path("f").c_str());
    REQUIRE(file != nullptr);
    fputs("a\nb\n", file);
    fclose(file);
    CHECK(temp.read("f") == std::string("a") + TEXT_LINE_END + "b" + TEXT_LINE_END);
}

TEST_CASE("a private file that existed is emptied")
{
    temp_data_dir temp;
    temp.write("f", "something long");
    for (int round = 0; round < 2; round++) { // the second one finds it restricted already
        FILE *file = open_private_file(temp.path("f").c_str());
        REQUIRE(file != nullptr);
        fputs("b", file);
        fclose(file);
        CHECK(temp.read("f") == "b");
    }
}

TEST_CASE("what cannot be opened gives null")
{
    temp_data_dir temp;
    CHECK(open_private_file((temp.root / "absent" / "f").string().c_str()) == nullptr);
    temp.make();
    CHECK(open_private_file(temp.directory().c_str()) == nullptr);
}

#ifndef _WIN32
TEST_CASE("a private file is its owner's alone, also when it existed before")
{
    temp_data_dir temp;
    temp.write("old", "x");
    REQUIRE(chmod(temp.path("old").c_str(), 0666) == 0);
    for (const char *name : {"new", "old"}) {
        FILE *file = open_private_file(temp.path(name).c_str());
        REQUIRE(file != nullptr);
        fclose(file);
        struct stat s;
        REQUIRE(stat(temp.path(name).c_str(), &s) == 0);
        CHECK((s.st_mode & 0777) == 0600);
    }
}
#endif
