#include "app/history.h"

#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#include <string>
#include <vector>

using namespace app;

// A history.txt in a folder of its own.
struct history_file {
    temp_data_dir temp;
    std::string path = (temp.root / "history.txt").string();

    explicit history_file(const std::string &content = "(absent)")
    {
        if (content != "(absent)")
            write(content);
        load();
    }

    void write(const std::string &content) const
    {
        FILE *file = fopen(path.c_str(), "wb");
        REQUIRE(file);
        fwrite(content.data(), 1, content.size(), file);
        fclose(file);
    }

    void load() const
    {
        history_load(path.c_str());
    }

    // With "\n" for whatever ends a line here.
    std::string content() const
    {
        std::string text = temp_data_dir::read_file(path);
        size_t at;
        while ((at = text.find("\r\n")) != std::string::npos)
            text.erase(at, 1);
        return text;
    }
};

// The table as the file would hold it.
static std::string table()
{
    std::string text;
    for (int32_t i = 0; i < history_count(); i++) {
        const history_entry *entry = history_get(i);
        text += std::string(entry->id) + "\t" + entry->computer + "\t" + entry->nickname +
                "\t" + entry->last_connected + "\n";
    }
    return text;
}

// Lines 0 .. count - 1 of targets that differ.
static std::string lines(int count)
{
    std::string text;
    for (int i = 0; i < count; i++) {
        std::string n = std::to_string(i);
        text += "1000" + n + "\tPC" + n + "\tname " + n + "\t2026-01-02 03:04\n";
    }
    return text;
}

static const char THREE[] = "111111111\tALPHA\tfirst\t2026-03-01 10:00\n"
                            "222222222\tBETA\tsecond\t2026-02-01 10:00\n"
                            "333333333\tGAMMA\t\t2026-01-01 10:00\n";

TEST_CASE("without a file the history is empty")
{
    history_file file;
    CHECK(history_count() == 0);
    CHECK(history_get(0) == nullptr);
    CHECK(file.content() == "(absent)"); // reading makes none
}

TEST_CASE("a line is four fields, which may be empty, with any line end")
{
    static const struct {
        const char *line, *id, *computer, *nickname, *when;
    } rows[] = {
        {"1\tPC\tdesk\t2026-01-02 03:04\n", "1", "PC", "desk", "2026-01-02 03:04"},
        {"1\tPC\tdesk\t2026-01-02 03:04\r\n", "1", "PC", "desk", "2026-01-02 03:04"},
        {"1\tPC\tdesk\t2026-01-02 03:04", "1", "PC", "desk", "2026-01-02 03:04"},
        {"1\tPC\tdesk\t2026\rrest\n", "1", "PC", "desk", "2026"},
        {"1\t\t\t\n", "1", "", "", ""},
        {"\t\t\t\n", "", "", "", ""},
        {"1\t\tdesk\t\n", "1", "", "desk", ""},
        {"h:1\tP C\td e\tnever\n", "h:1", "P C", "d e", "never"},
        // A fourth tab belongs to the last field.
        {"1\tPC\tdesk\ta\tb\n", "1", "PC", "desk", "a\tb"},
        {"\xe4\t\xf6\t\xfc\t\xdf\n", "\xe4", "\xf6", "\xfc", "\xdf"},
    };
    for (const auto &row : rows) {
        CAPTURE(row.line);
        history_entry entry;
        REQUIRE(history_parse_line(row.line, &entry));
        CHECK(std::string(entry.id) == row.id);
        CHECK(std::string(entry.computer) == row.computer);
        CHECK(std::string(entry.nickname) == row.nickname);
        CHECK(std::string(entry.last_connected) == row.when);
    }
}

TEST_CASE("a line with fewer than three tabs is none")
{
    for (const char *line : {"", "\n", "\r\n", "1\n", "1\tPC\n", "1\tPC\tdesk\n", "\t\t\n"}) {
        CAPTURE(line);
        history_entry entry;
        CHECK_FALSE(history_parse_line(line, &entry));
    }
}

TEST_CASE("a field that is too long is cut to its size")
{
    const std::string id(70, 'i'), computer(40, 'c'), nickname(70, 'n'), when(30, 'w');
    const std::string line = id + "\t" + computer + "\t" + nickname + "\t" + when + "\n";
    history_entry entry;
    REQUIRE(history_parse_line(line.c_str(), &entry));
    CHECK(std::string(entry.id) == id.substr(0, 63));
    CHECK(std::string(entry.computer) == computer.substr(0, 32));
    CHECK(std::string(entry.nickname) == nickname.substr(0, 63));
    CHECK(std::string(entry.last_connected) == when.substr(0, 23));
}

TEST_CASE("lines that are none of ours are left out")
{
    history_file file("rubbish\n1\tA\t\t2026-01-01 00:00\n\n2\tB\n3\tC\tc\tlast\r\n4\tD\td");
    CHECK(table() == "1\tA\t\t2026-01-01 00:00\n3\tC\tc\tlast\n");
}

TEST_CASE("a line of 300 characters or more is read in pieces of 299")
{
    // The first piece holds no tab and is dropped; what follows is a line of its own.
    history_file file(std::string(299, 'x') + "1\tA\t\twhen\n2\tB\t\twhen\n");
    CHECK(table() == "1\tA\t\twhen\n2\tB\t\twhen\n");

    // Three tabs in the first piece make it an entry; its rest has none and is dropped.
    file.write("1\tA\t\t" + std::string(400, 'y') + "\n2\tB\t\twhen\n");
    file.load();
    CHECK(table() == "1\tA\t\t" + std::string(23, 'y') + "\n2\tB\t\twhen\n");
}

TEST_CASE("bytes that are no text are read without harm")
{
    std::string noise;
    for (int i = 0; i < 2000; i++)
        noise += (char)(i * 7 % 256);
    history_file file(noise + std::string("\0\t\t\t\0\n", 6) + "1\tA\t\twhen\n");
    CHECK(history_count() <= HISTORY_MAX);
    // What was read can be written and read again as it is.
    history_save();
    const std::string before = table();
    file.load();
    CHECK(table() == before);
}

TEST_CASE("of 300 lines the first 256 are kept, and the next save writes those")
{
    history_file file(lines(300));
    CHECK(history_count() == 256);
    CHECK(table() == lines(256));
    CHECK(file.content() == lines(300));
    history_save();
    CHECK(file.content() == lines(256));
}

TEST_CASE("a full history takes no new target and still moves a known one")
{
    history_file file(lines(256));
    history_record("new", "PC", "2026-05-05 05:05");
    CHECK(table() == lines(256));
    CHECK(file.content() == lines(256)); // not even written

    history_record("1000255", "PC255", "2026-05-05 05:05");
    CHECK(history_count() == 256);
    CHECK(table() == "1000255\tPC255\tname 255\t2026-05-05 05:05\n" + lines(255));
    CHECK(file.content() == table());
}

TEST_CASE("a new target comes first")
{
    history_file file;
    history_record("123456789", "DESK", "2026-03-09 14:05");
    CHECK(file.content() == "123456789\tDESK\t\t2026-03-09 14:05\n");
    history_record("10.0.0.5:5900", "", "2026-03-09 14:06");
    CHECK(file.content() == "10.0.0.5:5900\t\t\t2026-03-09 14:06\n"
                            "123456789\tDESK\t\t2026-03-09 14:05\n");
    CHECK(table() == file.content());
}

TEST_CASE("a known target moves to the front and keeps its nickname")
{
    history_file file(THREE);
    history_record("222222222", "NEW", "2026-04-01 10:00");
    CHECK(table() == "222222222\tNEW\tsecond\t2026-04-01 10:00\n"
                     "111111111\tALPHA\tfirst\t2026-03-01 10:00\n"
                     "333333333\tGAMMA\t\t2026-01-01 10:00\n");
    CHECK(file.content() == table());
    // Where it is first already it stays.
    history_record("222222222", "NEW", "2026-04-01 10:01");
    CHECK(std::string(history_get(0)->last_connected) == "2026-04-01 10:01");
    CHECK(std::string(history_get(1)->id) == "111111111");
    // From the end.
    history_record("333333333", "GAMMA", "2026-04-01 10:02");
    CHECK(std::string(history_get(0)->id) == "333333333");
    CHECK(std::string(history_get(2)->id) == "111111111");
    CHECK(history_count() == 3);
}

TEST_CASE("an empty computer name leaves the known one")
{
    history_file file(THREE);
    history_record("111111111", "", "2026-04-01 10:00");
    CHECK(std::string(history_get(0)->computer) == "ALPHA");
}

TEST_CASE("targets are compared exactly")
{
    history_file file("Desk\tA\t\twhen\n");
    history_record("desk", "B", "later");
    history_record("Desk2", "C", "later");
    CHECK(history_count() == 3);
    CHECK(history_find("Desk") == 2);
    CHECK(history_find("DESK") == -1);
    CHECK(history_find("") == -1);
}

TEST_CASE("of two entries with one target the first counts")
{
    history_file file("1\tA\ta\twhen\n2\tB\tb\twhen\n1\tC\tc\twhen\n");
    CHECK(history_find("1") == 0);
    history_record("2", "B", "now");
    CHECK(history_find("1") == 1);
    history_record("1", "", "now");
    CHECK(table() == "1\tA\ta\tnow\n2\tB\tb\tnow\n1\tC\tc\twhen\n");
}

TEST_CASE("control characters become question marks on their way in")
{
    history_file file;
    history_record("1\t2\n3", "A\tB\r\nC\x1a\x7f\x01", "2026-01-01 00:00");
    CHECK(file.content() == "1?2?3\tA?B??C???\t\t2026-01-01 00:00\n");
    // It is found again under what it was recorded as.
    history_record("1\t2\n3", "D\xe4", "2026-01-01 00:01");
    CHECK(history_count() == 1);
    history_rename(0, "tab\there\x1b[0m");
    CHECK(file.content() == "1?2?3\tD\xe4\ttab?here?[0m\t2026-01-01 00:01\n");
    const std::string before = table();
    file.load();
    CHECK(table() == before);
}

TEST_CASE("texts that are too long are cut on their way in")
{
    history_file file;
    history_record(std::string(200, 't').c_str(), std::string(200, 'c').c_str(),
                   std::string(200, 'w').c_str());
    history_rename(0, std::string(200, 'n').c_str());
    CHECK(table() == std::string(63, 't') + "\t" + std::string(32, 'c') + "\t" +
                         std::string(63, 'n') + "\t" + std::string(23, 'w') + "\n");
    const std::string before = table();
    file.load(); // the longest line there can be fits one piece
    CHECK(table() == before);
}

TEST_CASE("a nickname is given, changed and taken away")
{
    history_file file(THREE);
    history_rename(2, "third");
    CHECK(std::string(history_get(2)->nickname) == "third");
    history_rename(0, "");
    CHECK(file.content() == "111111111\tALPHA\t\t2026-03-01 10:00\n"
                            "222222222\tBETA\tsecond\t2026-02-01 10:00\n"
                            "333333333\tGAMMA\tthird\t2026-01-01 10:00\n");
}

TEST_CASE("removing closes the gap")
{
    history_file file(THREE);
    history_remove(1);
    CHECK(file.content() == "111111111\tALPHA\tfirst\t2026-03-01 10:00\n"
                            "333333333\tGAMMA\t\t2026-01-01 10:00\n");
    history_remove(1);
    history_remove(0);
    CHECK(history_count() == 0);
    CHECK(file.content().empty());

    file.write(lines(256));
    file.load();
    history_remove(255); // the last slot of all
    CHECK(table() == lines(255));
    history_remove(0);
    const std::string all = lines(255);
    CHECK(table() == all.substr(all.find('\n') + 1));
    CHECK(file.content() == table());
}

TEST_CASE("an index without an entry changes nothing")
{
    history_file file(THREE);
    file.write("untouched");
    for (int32_t index : {-1, 3, 256, INT32_MAX, INT32_MIN}) {
        CHECK(history_get(index) == nullptr);
        history_rename(index, "x");
        history_remove(index);
    }
    CHECK(table() == THREE);
    CHECK(file.content() == "untouched");
}

TEST_CASE("a file that cannot be written leaves the history in memory")
{
    history_file file(THREE);
    std::filesystem::remove(file.path);
    std::filesystem::create_directory(file.path); // now nobody opens it as a file
    history_record("444444444", "DELTA", "2026-04-01 10:00");
    history_rename(0, "fourth");
    CHECK(history_count() == 4);
    CHECK(std::string(history_get(0)->nickname) == "fourth");
    history_remove(1);
    CHECK(history_count() == 3);
}

TEST_CASE("a row shows what is not known as a dash or a question mark")
{
    history_file file(THREE);
    history_record("4", "", "2026-04-01 10:00");
    static const struct {
        int32_t row;
        const char *columns[HISTORY_COLUMNS];
    } rows[] = {
        {0, {"-", "?", "4", "2026-04-01 10:00"}},
        {1, {"first", "ALPHA", "111111111", "2026-03-01 10:00"}},
        {3, {"-", "GAMMA", "333333333", "2026-01-01 10:00"}},
    };
    for (const auto &row : rows)
        for (int32_t column = 0; column < HISTORY_COLUMNS; column++)
            CHECK(std::string(history_column(history_get(row.row), column)) ==
                  row.columns[column]);
    CHECK(std::string(history_column(history_get(0), 4)).empty());
    CHECK(std::string(history_column(history_get(0), -1)).empty());
}
