// Options: -max_len=8192 -dict=fuzz/history.dict
// Seeds: 10 3000
//
// history.txt as anybody may have left it, then connections, names and removals with any
// text. The table is held against another one, of strings, made by the same rules in another
// order; and what is saved reads back as it was.
#include "app/history.h"
#include "fuzz/fuzz.h"

#include <string>
#include <unistd.h>

using namespace app;

struct model_entry {
    std::string id, computer, nickname, when;
};

static std::vector<model_entry> model;
static char path[64];

static void remove_file()
{
    unlink(path);
}

// In memory where the system has a place for that.
static void make_file_once()
{
    if (path[0])
        return;
    snprintf(path, sizeof path, "%s/qv_history_fuzz_XXXXXX",
             access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    int file = mkstemp(path);
    FUZZ_CHECK(file >= 0);
    close(file);
    atexit(remove_file);
}

static void write_file(const std::vector<uint8_t> &content)
{
    FILE *file = fopen(path, "wb");
    FUZZ_CHECK(file);
    FUZZ_CHECK(fwrite(content.data(), 1, content.size(), file) == content.size());
    fclose(file);
}

static void model_line(std::string line)
{
    line = line.substr(0, line.find('\0'));
    size_t first = line.find('\t');
    size_t second = first == std::string::npos ? first : line.find('\t', first + 1);
    size_t third = second == std::string::npos ? second : line.find('\t', second + 1);
    if (third == std::string::npos)
        return;
    std::string rest = line.substr(third + 1);
    rest = rest.substr(0, rest.find_first_of("\r\n"));
    model.push_back({line.substr(0, first).substr(0, 63),
                     line.substr(first + 1, second - first - 1).substr(0, 32),
                     line.substr(second + 1, third - second - 1).substr(0, 63),
                     rest.substr(0, 23)});
}

static void model_load(const std::vector<uint8_t> &content)
{
    model.clear();
    std::string line;
    for (uint8_t c : content) {
        line.push_back((char)c);
        if (c == '\n' || line.size() == 299) {
            model_line(line);
            line.clear();
        }
    }
    model_line(line);
    if (model.size() > 256)
        model.resize(256);
}

static std::string printable(const std::vector<uint8_t> &text, size_t limit)
{
    std::string result(text.begin(), text.end());
    for (char &c : result)
        if ((c >= 0 && c < 32) || c == 127)
            c = '?';
    return result.substr(0, limit);
}

static void model_record(const std::string &id, const std::string &computer,
                         const std::string &when)
{
    model_entry entry = {id, "", "", ""};
    size_t at = 0;
    while (at < model.size() && model[at].id != id)
        at++;
    if (at < model.size()) {
        entry = model[at];
        model.erase(model.begin() + (ptrdiff_t)at);
    } else if (model.size() == 256) {
        return;
    }
    if (!computer.empty())
        entry.computer = computer;
    entry.when = when;
    model.insert(model.begin(), entry);
}

static void check_table()
{
    FUZZ_CHECK(history_count() == (int32_t)model.size());
    FUZZ_CHECK(!history_get(-1) && !history_get(history_count()));
    for (size_t i = 0; i < model.size(); i++) {
        const history_entry *entry = history_get((int32_t)i);
        FUZZ_CHECK(entry);
        FUZZ_CHECK(entry->id == model[i].id);
        FUZZ_CHECK(entry->computer == model[i].computer);
        FUZZ_CHECK(entry->nickname == model[i].nickname);
        FUZZ_CHECK(entry->last_connected == model[i].when);
    }
}

// A text of the input, terminated, in a block of just its size.
struct given_text {
    std::vector<uint8_t> text;
    exact_bytes block;

    explicit given_text(fuzz_input *in) : text(take_text(in, 80)), block(text.size() + 1)
    {
        if (!text.empty())
            memcpy(block.data, text.data(), text.size());
        block.data[text.size()] = 0;
    }
    const char *c_str() const
    {
        return (const char *)block.data;
    }
};

static void change(fuzz_input *in)
{
    int32_t index = (int32_t)take_below(in, 300) - 1;
    size_t at = (size_t)index;
    switch (take_below(in, 3)) {
    case 0: {
        given_text target(in), computer(in), when(in);
        history_record(target.c_str(), computer.c_str(), when.c_str());
        model_record(printable(target.text, 63), printable(computer.text, 32),
                     printable(when.text, 23));
        break;
    }
    case 1: {
        given_text nickname(in);
        history_rename(index, nickname.c_str());
        if (at < model.size())
            model[at].nickname = printable(nickname.text, 63);
        break;
    }
    default:
        history_remove(index);
        if (at < model.size())
            model.erase(model.begin() + index);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    make_file_once();
    fuzz_input in = {data, size};
    uint32_t changes = take_below(&in, 16);
    std::vector<uint8_t> content = take_bytes(&in, take_u16(&in));
    write_file(content);
    history_load(path);
    model_load(content);
    check_table();
    while (changes-- > 0) {
        change(&in);
        check_table();
    }
    history_save();
    history_load(path);
    check_table();
    return 0;
}
