#include "identity/data_dir.h"

#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#include <string.h>

TEST_CASE("the data directory is qv under PROGRAMDATA and is created")
{
    temp_data_dir temp;
    char path[DATA_DIR_SIZE];
    CHECK(!std::filesystem::exists(temp.directory()));
    data_dir_make(path);
    CHECK(path == temp.program_data + "\\qv");
    CHECK(std::filesystem::is_directory(temp.directory()));

    temp.write("kept", "x");
    data_dir_make(path); // an existing one is the normal case
    CHECK(temp.read("kept") == "x");
}

TEST_CASE("asking for a file's path makes the directory first")
{
    char path[DATA_FILE_SIZE];
    {
        temp_data_dir temp;
        data_dir_id_path(path);
        CHECK(path == temp.program_data + "\\qv\\id.txt");
        CHECK(std::filesystem::is_directory(temp.directory()));
    }
    {
        temp_data_dir temp;
        data_dir_host_path(path);
        CHECK(path == temp.program_data + "\\qv\\host.txt");
        CHECK(std::filesystem::is_directory(temp.directory()));
    }
}

TEST_CASE("the path is built afresh each time")
{
    temp_data_dir first;
    char path[DATA_DIR_SIZE];
    data_dir_make(path);
    temp_data_dir second;
    data_dir_make(path);
    CHECK(path == second.directory());
    CHECK(std::filesystem::is_directory(second.directory()));
}

TEST_CASE("without PROGRAMDATA it is C:\\ProgramData")
{
    temp_data_dir temp;
    const std::filesystem::path back = std::filesystem::current_path();
    std::filesystem::current_path(temp.root); // a native build makes an odd name in here
    set_environment("PROGRAMDATA", nullptr);
    char path[DATA_DIR_SIZE];
    data_dir_make(path);
    CHECK(std::string(path) == "C:\\ProgramData\\qv");
    CHECK(std::filesystem::is_directory(path));
    std::filesystem::current_path(back);
}

TEST_CASE("a PROGRAMDATA longer than the buffer is cut, not overrun")
{
    temp_data_dir temp; // restores nothing, but every case sets its own
    const std::string longest(300, 'p');
    set_environment("PROGRAMDATA", longest.c_str());
    char path[DATA_FILE_SIZE];
    data_dir_id_path(path);
    // 259 characters of directory fill its buffer; the file's name still fits behind them.
    CHECK(std::string(path) == std::string(259, 'p') + "\\id.txt");
}
