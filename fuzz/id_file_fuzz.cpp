// Fakes: random_script computer_name_script clock_script
// Options: -max_len=256
//
// id.txt as anybody may have left it, and the texts that the identity keeps. A word of nine
// characters or more stands; for anything else there is a new ID, which the file then holds.
// What is set can be got, and host.txt says the same.
#include "fuzz/fuzz.h"
#include "identity/data_dir.h"
#include "identity/host_identity.h"
#include "protocol/net.h"
#include "tests/fakes/computer_name_script.h"
#include "tests/fakes/random_script.h"

#include <ftw.h>
#include <string>
#include <unistd.h>

// In memory where the system has a place for that.
static char directory[64];

static int remove_one(const char *path, const struct stat *, int, struct FTW *)
{
    return remove(path);
}

static void remove_directory()
{
    nftw(directory, remove_one, 8, FTW_DEPTH | FTW_PHYS);
}

static void make_directory_once()
{
    static bool made;
    if (made)
        return;
    made = true;
    snprintf(directory, sizeof directory, "%s/qv_id_file_fuzz_XXXXXX",
             access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    FUZZ_CHECK(mkdtemp(directory));
    atexit(remove_directory);
    // A folder below, so that the name with the backslash lies in it.
    setenv("PROGRAMDATA", (std::string(directory) + "/data").c_str(), 1);
}

static void write_file(const char *path, const std::vector<uint8_t> &content)
{
    FILE *file = fopen(path, "wb");
    FUZZ_CHECK(file);
    FUZZ_CHECK(fwrite(content.data(), 1, content.size(), file) == content.size());
    fclose(file);
}

static std::string read_file(const char *path)
{
    FILE *file = fopen(path, "rb");
    FUZZ_CHECK(file);
    char content[4096];
    size_t n = fread(content, 1, sizeof content, file);
    fclose(file);
    return std::string(content, n);
}

static bool is_space(uint8_t c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The file's first word, at most 15 bytes of it, up to a NUL.
static std::string first_word(const std::vector<uint8_t> &content)
{
    size_t at = 0;
    while (at < content.size() && is_space(content[at]))
        at++;
    std::string word;
    while (at < content.size() && word.size() < 15 && !is_space(content[at]))
        word.push_back((char)content[at++]);
    return word.substr(0, word.find('\0'));
}

static void check_id(const std::vector<uint8_t> &content)
{
    char path[DATA_FILE_SIZE];
    data_dir_id_path(path);
    write_file(path, content);
    random_script.used = 0;
    host_load_or_create_id();
    std::string id = host_get_id();
    std::string word = first_word(content);
    if (word.size() >= 9) {
        FUZZ_CHECK(id == word);
        FUZZ_CHECK(read_file(path) == std::string(content.begin(), content.end()));
    } else {
        FUZZ_CHECK(id.size() == 9);
        for (size_t i = 0; i < 9; i++)
            FUZZ_CHECK(id[i] == '0' + random_script.bytes[i] % 10);
        FUZZ_CHECK(read_file(path) == id);
    }
    // Whatever it is, the next start has the same.
    random_script.bytes[0]++;
    host_load_or_create_id();
    FUZZ_CHECK(host_get_id() == id);
}

static void check_password(const std::vector<uint8_t> &text)
{
    std::vector<uint8_t> terminated = text;
    terminated.push_back(0);
    exact_bytes given(terminated);
    host_set_password((const char *)given.data);
    std::string password = host_get_password();
    if (text.empty()) {
        FUZZ_CHECK(password.size() == 8);
        FUZZ_CHECK(password.find_first_not_of(
                       "23456789abcdefghjkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXY") ==
                   std::string::npos);
    } else {
        FUZZ_CHECK(password == std::string(text.begin(), text.end()).substr(0, 32));
    }
    exact_bytes copy(HOST_PASSWORD_SIZE);
    host_copy_password((char *)copy.data);
    FUZZ_CHECK(password == (const char *)copy.data);

    char path[DATA_FILE_SIZE];
    data_dir_host_path(path);
    std::string relay = std::string(host_get_relay()) + ":" + std::to_string(RELAY_PORT);
    FUZZ_CHECK(read_file(path) == std::string("id=") + host_get_id() +
                                      "\npassword=" + password + "\nrelay=" + relay +
                                      "\nname=" + host_get_computer_name() + "\n");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    make_directory_once();
    fuzz_input in = {data, size};
    uint8_t kind = take_u8(&in);
    random_script = {};
    fill_noise(random_script.bytes, RANDOM_SCRIPT_SIZE, take_u8(&in));
    std::vector<uint8_t> text = take_text(&in, 64);
    std::vector<uint8_t> name = take_text(&in, 32);
    std::vector<uint8_t> content = take_bytes(&in, in.left);

    name.push_back(0);
    exact_bytes name_text(name);
    computer_name_script = (const char *)name_text.data;
    host_identity_init(kind & 1);
    check_id(content);

    // The name and the room as init leaves them: of the ID that the file has now.
    host_identity_init(kind & 1);
    FUZZ_CHECK(std::string(host_get_computer_name()) == (const char *)name_text.data);
    if (kind & 1)
        FUZZ_CHECK(strcmp(host_get_room(), host_get_id()) == 0);
    check_password(text);
    check_password({});
    computer_name_script = nullptr;
    return 0;
}
