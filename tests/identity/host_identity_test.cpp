// Fakes: clock_script random_script computer_name_script server_log_record host_files_hook
#include "identity/host_identity.h"

#include "tests/fakes/clock_script.h"
#include "tests/fakes/computer_name_script.h"
#include "tests/fakes/host_files_hook.h"
#include "tests/fakes/random_script.h"
#include "tests/fakes/server_log_record.h"
#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#include <string.h>
#include <vector>
#ifndef _WIN32
#include <pthread.h>
#endif

static const std::string NL = TEXT_LINE_END;
static const char ROTATED[] = "password rotated (next in 6h)";
static const char SET_BY_USER[] = "password set by user";

// The generator's next bytes are these, from here on.
static void script_random(std::initializer_list<uint8_t> bytes)
{
    random_script = {};
    size_t i = 0;
    for (uint8_t b : bytes)
        random_script.bytes[i++] = b;
}

// A data directory of its own, and fakes in their start state.
struct fixture : temp_data_dir {
    fixture()
    {
        clock_script_now = 1000;
        clock_script_on_read = nullptr;
        script_random({});
        computer_name_script = "TESTBOX";
        host_files_on_open = nullptr;
        server_log_clear();
    }
};

static std::string host_file(const std::string &id, const std::string &password,
                             const std::string &name)
{
    return "id=" + id + NL + "password=" + password + NL + "relay=" + QV_RELAY_HOST + ":7000" +
           NL + "name=" + name + NL;
}

// First in the file: these are a new process's values.
TEST_CASE("a process starts without a password and direct mode keeps the default room")
{
    fixture f;
    CHECK(std::string(host_get_room()) == "qv-demo");
    CHECK(std::string(host_get_relay()) == QV_RELAY_HOST);
    CHECK(host_get_text_layer_enabled() == 1);
    CHECK(host_get_window_list_enabled() == 1);
    CHECK(host_get_state() == HOST_OFFLINE);
    CHECK(std::string(host_get_peer_name()) == "");
    REQUIRE(std::string(host_get_password()) == "");

    // An empty password is replaced without force, whatever the clock says.
    clock_script_now = 0;
    host_rotate_password(0);
    CHECK(std::string(host_get_password()) == "22222222");

    host_identity_init(0);
    CHECK(host_get_relay_mode() == 0);
    CHECK(std::string(host_get_room()) == "qv-demo");
}

TEST_CASE("a first start makes ID and password from the generator's bytes")
{
    fixture f;
    // Digits are byte mod 10: 0 9 0 5 8 7 9 0 3. The other seven bytes go unused.
    // Characters are alphabet[byte mod 54], and 54 = 2, 107 mod 54 = 53 = Y (the last but
    // one of 55), 255 mod 54 = 39 = J, 29 = y, 8 = a, 31 = A.
    script_random({0,  9,   10, 255, 128, 57, 99, 100, 203, 1, 1, 1, 1, 1, 1, 1, // ID
                   54, 107, 0,  53,  255, 29, 8,  31});                          // password
    host_identity_init(1);
    CHECK(std::string(host_get_id()) == "090587903");
    CHECK(std::string(host_get_password()) == "2Y2YJyaA");
    REQUIRE(random_script.draws == 2);
    CHECK(random_script.draw_sizes[0] == 16);
    CHECK(random_script.draw_sizes[1] == 32);

    CHECK(f.read("id.txt") == "090587903");
    CHECK(f.read("host.txt") == host_file("090587903", "2Y2YJyaA", "TESTBOX"));
    CHECK(server_log_lines() == std::vector<std::string>{ROTATED});

    CHECK(host_get_relay_mode() == 1);
    CHECK(std::string(host_get_room()) == "090587903");
    CHECK(std::string(host_get_computer_name()) == "TESTBOX");
    CHECK(host_get_text_layer_enabled() == 1);
    CHECK(host_get_window_list_enabled() == 0);
}

TEST_CASE("the ID survives a restart and the password does not")
{
    fixture f;
    script_random({1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0, 0, 0, 0, 0, 0});
    host_identity_init(1);
    CHECK(std::string(host_get_password()) == "22222222");
    script_random({1, 1, 1, 1, 1, 1, 1, 1});
    host_identity_init(1);
    CHECK(std::string(host_get_id()) == "123456789");
    CHECK(std::string(host_get_password()) == "33333333");
    CHECK(random_script.draws == 1); // none for the ID
    CHECK(f.read("id.txt") == "123456789");
}

TEST_CASE("what id.txt holds decides whether it is kept")
{
    static const struct {
        const char *what;
        std::string file;
        const char *id; // null: replaced by a new one
    } rows[] = {
        {"nine digits", "987654321", "987654321"},
        {"nine letters", "abcdefghi", "abcdefghi"},
        {"eight digits", "98765432", nullptr},
        {"fifteen characters", "abcdefghijklmno", "abcdefghijklmno"},
        {"sixteen characters", "abcdefghijklmnop", "abcdefghijklmno"},
        {"a long word", std::string(5000, 'x'), "xxxxxxxxxxxxxxx"},
        {"space round the word", " \t\r\n 987654321 \r\n", "987654321"},
        {"a second word", "98765432 1", nullptr},
        {"nothing", "", nullptr},
        {"blanks", " \n\t ", nullptr},
        {"a NUL in the word",
         std::string("98765432\0"
                     "1abc",
                     13),
         nullptr},
        {"not digits at all", "-/<>%s%n\"", "-/<>%s%n\""},
    };
    for (const auto &row : rows) {
        INFO(row.what);
        fixture f;
        f.write("id.txt", row.file);
        script_random({5, 5, 5, 5, 5, 5, 5, 5, 6});
        host_load_or_create_id();
        if (row.id != nullptr) {
            CHECK(std::string(host_get_id()) == row.id);
            CHECK(f.read("id.txt") == row.file);
            CHECK(random_script.draws == 0);
        } else {
            CHECK(std::string(host_get_id()) == "555555556");
            CHECK(f.read("id.txt") == "555555556");
            CHECK(random_script.draws == 1);
        }
    }
}

TEST_CASE("a kept ID becomes the room, published and all")
{
    fixture f;
    f.write("id.txt", "fifteen-letters");
    host_identity_init(1);
    CHECK(std::string(host_get_room()) == "fifteen-letters");
    CHECK(f.read("host.txt") == host_file("fifteen-letters", "22222222", "TESTBOX"));
}

TEST_CASE("an id.txt that cannot be read or written gives a new ID each start")
{
    fixture f;
    f.make();
    std::filesystem::create_directory(f.path("id.txt")); // in the file's way
    script_random({5, 5, 5, 5, 5, 5, 5, 5, 6});
    host_load_or_create_id();
    CHECK(std::string(host_get_id()) == "555555556");
    host_load_or_create_id();
    CHECK(std::string(host_get_id()) == "000000000"); // the script's next bytes
    CHECK(std::filesystem::is_directory(f.path("id.txt")));
}

TEST_CASE("a data directory that cannot be had is passed over in silence")
{
    fixture f;
    f.make_unreachable();
    script_random({5, 5, 5, 5, 5, 5, 5, 5, 6, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1});
    host_identity_init(1);
    CHECK(std::string(host_get_id()) == "555555556");
    CHECK(std::string(host_get_password()) == "33333333");
    host_set_password("mine");
    CHECK(std::string(host_get_password()) == "mine");
    CHECK(server_log_lines() == std::vector<std::string>{ROTATED, SET_BY_USER});
    CHECK(!std::filesystem::exists(f.directory()));
}

TEST_CASE("a host.txt that cannot be written changes nothing else")
{
    fixture f;
    f.make();
    std::filesystem::create_directory(f.path("host.txt")); // in the file's way
    host_identity_init(1);
    host_set_password("mine");
    CHECK(std::string(host_get_password()) == "mine");
    CHECK(server_log_lines() == std::vector<std::string>{ROTATED, SET_BY_USER});
    CHECK(std::filesystem::is_directory(f.path("host.txt")));
}

TEST_CASE("a data directory that was deleted comes back with the next file")
{
    fixture f;
    host_identity_init(1);
    std::filesystem::remove_all(f.directory());
    host_set_password("mine");
    CHECK(f.read("host.txt") == host_file("000000000", "mine", "TESTBOX"));
}

TEST_CASE("a computer that does not tell its name has an empty one")
{
    fixture f;
    computer_name_script = nullptr;
    host_identity_init(1);
    CHECK(std::string(host_get_computer_name()) == "");
    CHECK(f.read("host.txt") == host_file("000000000", "22222222", ""));
}

TEST_CASE("the longest computer name is kept whole")
{
    fixture f;
    computer_name_script = "abcdefghijklmnopqrstuvwxyz012345"; // 32 characters
    host_identity_init(1);
    CHECK(std::string(host_get_computer_name()) == "abcdefghijklmnopqrstuvwxyz012345");
}

TEST_CASE("a generator that fails is not noticed")
{
    fixture f;
    random_script.fails = true;
    host_identity_init(1);
    CHECK(strlen(host_get_id()) == 9);
    CHECK(strlen(host_get_password()) == 8);
}

TEST_CASE("a generated password has 54 characters to choose from, without look-alikes")
{
    fixture f;
    host_identity_init(1);
    // 55 characters without 0 1 i l o I O, and of these the last, Z, is never produced.
    const std::string used = "23456789abcdefghjkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXY";
    REQUIRE(used.size() == 54);
    for (uint32_t first = 0; first < 256; first += 8) {
        random_script = {};
        for (uint32_t i = 0; i < 8; i++)
            random_script.bytes[i] = (uint8_t)(first + i);
        host_rotate_password(1);
        const std::string password = host_get_password();
        REQUIRE(password.size() == 8);
        CHECK(password.find_first_of("Z01lioIO") == std::string::npos);
        for (uint32_t i = 0; i < 8; i++)
            CHECK(password[i] == used[(first + i) % 54]);
    }
}

TEST_CASE("an unforced rotation waits for six hours")
{
    static const struct {
        uint32_t last, now;
        bool due;
    } rows[] = {
        {1000, 1000, false},
        {1000, 1000 + 21599999, false},
        {1000, 1000 + 21600000, true},
        {1000, 1000 + 21600001, true},
        {1000, 0xFFFFFFFF, true},
        {1000, 999, true},                   // 2^32 - 1 ms on, 49.7 days
        {0xFFFFFF00, 0xFFFFFF00, false},     // the count wraps 256 ms later:
        {0xFFFFFF00, 21599999 - 256, false}, // 21,599,999 ms on
        {0xFFFFFF00, 21600000 - 256, true},  // 21,600,000 ms on
        {0xFFFFFFFF, 0, false},
    };
    for (const auto &row : rows) {
        INFO("from ", row.last, " to ", row.now);
        fixture f;
        clock_script_now = row.last;
        host_identity_init(1); // 22222222
        server_log_clear();
        script_random({1, 1, 1, 1, 1, 1, 1, 1});
        clock_script_now = row.now;
        host_rotate_password(0);
        const std::string now = row.due ? "33333333" : "22222222";
        CHECK(host_get_password() == now);
        CHECK(f.read("host.txt") == host_file("000000000", now, "TESTBOX"));
        CHECK(server_log_lines().size() == (row.due ? 1 : 0));
    }
}

TEST_CASE("six hours count from the last rotation, also from a forced one")
{
    fixture f;
    host_identity_init(1);
    clock_script_now += 21000000;
    script_random({1, 1, 1, 1, 1, 1, 1, 1});
    host_rotate_password(1);
    CHECK(std::string(host_get_password()) == "33333333");
    CHECK(server_log_lines() == std::vector<std::string>{ROTATED, ROTATED});
    clock_script_now += 21599999;
    host_rotate_password(0);
    CHECK(std::string(host_get_password()) == "33333333");
    clock_script_now += 1;
    script_random({7, 7, 7, 7, 7, 7, 7, 7});
    host_rotate_password(0);
    CHECK(std::string(host_get_password()) == "99999999");
}

TEST_CASE("a password that another thread makes while the clock is read is not an old one")
{
    fixture f;
    host_identity_init(1);
    clock_script_now += 100;
    // A viewer comes. Its check has the time and is held up while the user asks for a new
    // password, which is a millisecond younger than that time.
    clock_script_on_read = [] {
        clock_script_now += 1;
        script_random({1, 1, 1, 1, 1, 1, 1, 1});
        host_set_password("");
        script_random({7, 7, 7, 7, 7, 7, 7, 7});
    };
    host_rotate_password(0);
    CHECK(std::string(host_get_password()) == "33333333");
    CHECK(f.read("host.txt") == host_file("000000000", "33333333", "TESTBOX"));
    CHECK(server_log_lines() == std::vector<std::string>{ROTATED, ROTATED});

    // When the old one was due, the new one takes its place all the same.
    clock_script_now += 21600000;
    clock_script_on_read = [] {
        clock_script_now += 1;
        host_set_password(""); // 99999999
        script_random({2, 2, 2, 2, 2, 2, 2, 2});
    };
    host_rotate_password(0);
    CHECK(std::string(host_get_password()) == "99999999");
}

TEST_CASE("a user's password is kept up to 32 characters")
{
    fixture f;
    host_identity_init(1);
    server_log_clear();
    host_set_password("0123456789abcdefghijABCDEFGHIJ!?0123456789"); // 42
    CHECK(std::string(host_get_password()) == "0123456789abcdefghijABCDEFGHIJ!?");
    CHECK(f.read("host.txt") ==
          host_file("000000000", "0123456789abcdefghijABCDEFGHIJ!?", "TESTBOX"));
    CHECK(server_log_lines() == std::vector<std::string>{SET_BY_USER});

    host_set_password(std::string(40, 'x').c_str());
    CHECK(host_get_password() == std::string(32, 'x'));
    host_set_password("y"); // shorter than the one before
    CHECK(std::string(host_get_password()) == "y");
    CHECK(f.read("host.txt") == host_file("000000000", "y", "TESTBOX"));

    char copy[HOST_PASSWORD_SIZE];
    host_set_password(std::string(40, 'z').c_str());
    host_copy_password(copy);
    CHECK(copy == std::string(32, 'z'));
}

TEST_CASE("a user's password is never rotated")
{
    fixture f;
    host_identity_init(1);
    host_set_password("mine");
    server_log_clear();
    for (uint32_t hours : {0, 6, 7, 100, 1193}) {
        clock_script_now = 1000 + hours * 3600000u;
        host_rotate_password(0);
        host_rotate_password(1);
        CHECK(std::string(host_get_password()) == "mine");
    }
    CHECK(server_log_lines().empty());
    CHECK(f.read("host.txt") == host_file("000000000", "mine", "TESTBOX"));
}

TEST_CASE("after a restart a user's password is random again")
{
    fixture f;
    host_identity_init(1);
    host_set_password("mine");
    script_random({1, 1, 1, 1, 1, 1, 1, 1});
    host_identity_init(1);
    CHECK(std::string(host_get_password()) == "33333333");
    script_random({7, 7, 7, 7, 7, 7, 7, 7});
    clock_script_now += 21600000;
    host_rotate_password(0); // and rotates
    CHECK(std::string(host_get_password()) == "99999999");
}

TEST_CASE("an empty password or none makes a new generated one at once")
{
    for (const char *text : {"", (const char *)nullptr}) {
        fixture f;
        host_identity_init(1);
        host_set_password("mine");
        server_log_clear();
        script_random({1, 1, 1, 1, 1, 1, 1, 1});
        clock_script_now += 5;
        host_set_password(text);
        CHECK(std::string(host_get_password()) == "33333333");
        CHECK(server_log_lines() == std::vector<std::string>{ROTATED});
        CHECK(f.read("host.txt") == host_file("000000000", "33333333", "TESTBOX"));

        script_random({7, 7, 7, 7, 7, 7, 7, 7});
        clock_script_now += 21599999; // rotation is on again, from now
        host_rotate_password(0);
        CHECK(std::string(host_get_password()) == "33333333");
        clock_script_now += 1;
        host_rotate_password(0);
        CHECK(std::string(host_get_password()) == "99999999");
    }
}

static std::string seen_during_draw;

TEST_CASE("going back to generated passwords never publishes an empty one")
{
    fixture f;
    host_identity_init(1);
    host_set_password("mine");
    seen_during_draw = "?";
    random_script.on_draw = [] { seen_during_draw = host_get_password(); };
    host_set_password("");
    CHECK(seen_during_draw == "mine");
    CHECK(std::string(host_get_password()) == "22222222");
}

TEST_CASE("a user's password that comes in the middle of a rotation wins")
{
    fixture f;
    host_identity_init(1);
    server_log_clear();
    clock_script_now += 21600000;
    random_script.on_draw = [] { host_set_password("mine"); };
    host_rotate_password(0);
    CHECK(std::string(host_get_password()) == "mine");
    CHECK(f.read("host.txt") == host_file("000000000", "mine", "TESTBOX"));
    CHECK(server_log_lines() == std::vector<std::string>{SET_BY_USER});
    host_rotate_password(1);
    CHECK(std::string(host_get_password()) == "mine");
}

TEST_CASE("host.txt shows the password that stands when two writers meet")
{
    fixture f;
    host_identity_init(1);
    // The rotation has published its password and is about to write the file; the user's
    // password comes and is written in between.
    host_files_on_open = [] { host_set_password("mine"); };
    host_rotate_password(1);
    CHECK(std::string(host_get_password()) == "mine");
    CHECK(f.read("host.txt") == host_file("000000000", "mine", "TESTBOX"));
}

TEST_CASE("a text that a reader holds stays as it is while others replace it")
{
    fixture f;
    host_identity_init(1);
    host_set_password("the reader's text");
    const char *held = host_get_password();
    for (uint32_t i = 0; i < TEXT_SLOTS - 1; i++) {
        CHECK(std::string(held) == "the reader's text");
        host_set_password(i % 2 ? "short" : "a text that fills the slot whole");
    }
    CHECK(std::string(held) == "the reader's text");
}

TEST_CASE("the server thread's state and peer name are shown")
{
    fixture f;
    for (int32_t state : {HOST_WAITING, HOST_SERVING, HOST_OFFLINE}) {
        host_set_state(state);
        CHECK(host_get_state() == state);
    }
    host_set_peer_name("ADA");
    CHECK(std::string(host_get_peer_name()) == "ADA");
    host_set_peer_name("abcdefghijklmnopqrstuvwxyz012345"); // all 32 characters of a hello
    CHECK(std::string(host_get_peer_name()) == "abcdefghijklmnopqrstuvwxyz012345");
    host_set_peer_name(std::string(50, 'n').c_str());
    CHECK(host_get_peer_name() == std::string(32, 'n'));
    host_set_peer_name("");
    CHECK(std::string(host_get_peer_name()) == "");
}

TEST_CASE("a password of any length leaves no trace of a longer one in host.txt")
{
    fixture f;
    host_identity_init(1);
    for (size_t n = 32; n > 0; n--) {
        const std::string text(n, 'p');
        host_set_password(text.c_str());
        CHECK(f.read("host.txt") == host_file("000000000", text, "TESTBOX"));
    }
}

#ifndef _WIN32

static void *rotate_by_force(void *)
{
    // Far down the stack, where the thread's own end overwrites nothing.
    volatile uint8_t above[256 << 10];
    above[0] = 0;
    host_rotate_password(1);
    above[1] = 0;
    return nullptr;
}

TEST_CASE("no way out of a rotation leaves the new password on the stack")
{
    enum { PUBLISHED, NO_FILE, USER_WINS, WAYS };
    for (int way = PUBLISHED; way < WAYS; way++) {
        CAPTURE(way);
        fixture f;
        if (way == NO_FILE)
            f.make_unreachable();
        host_identity_init(1);
        const uint8_t drawn[8] = {10, 21, 32, 43, 50, 41, 30, 20}; // cqBNVLzp
        for (size_t i = 0; i < RANDOM_SCRIPT_SIZE; i++)
            random_script.bytes[i] = drawn[i % 8];
        random_script.used = 0;
        if (way == USER_WINS)
            random_script.on_draw = [] { host_set_password("mine"); };

        std::vector<uint8_t> stack(1 << 20);
        pthread_attr_t attributes;
        pthread_t t;
        REQUIRE(pthread_attr_init(&attributes) == 0);
        REQUIRE(pthread_attr_setstack(&attributes, stack.data(), stack.size()) == 0);
        REQUIRE(pthread_create(&t, &attributes, rotate_by_force, nullptr) == 0);
        pthread_attr_destroy(&attributes);
        REQUIRE(pthread_join(t, nullptr) == 0);

        CHECK(std::string(host_get_password()) == (way == USER_WINS ? "mine" : "cqBNVLzp"));
        CHECK(memmem(stack.data(), stack.size(), drawn, sizeof drawn) == nullptr);
        CHECK(memmem(stack.data(), stack.size(), "cqBNVLzp", 8) == nullptr);
    }
}

#endif

// Last in the file: the relay stays what the file said until the process ends.
TEST_CASE("an administrator's relay.txt is the host's relay, also in host.txt")
{
    fixture f;
    f.write("relay.txt", "relay.example.com\r\n");
    CHECK(std::string(host_get_relay()) == QV_RELAY_HOST);
    host_identity_init(1);
    CHECK(std::string(host_get_relay()) == "relay.example.com");
    CHECK(f.read("host.txt").find(NL + "relay=relay.example.com:7000" + NL) !=
          std::string::npos);
    f.write("relay.txt", "another");
    host_write_info(); // read once, at the start
    CHECK(f.read("host.txt").find(NL + "relay=relay.example.com:7000" + NL) !=
          std::string::npos);
}
