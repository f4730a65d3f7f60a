#include "identity/relay_host.h"

#include "identity/data_dir.h"
#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#include <string.h>

// What a relay.txt of these bytes says; "(default)" when the default stands.
static std::string parsed(const std::string &text)
{
    char host[RELAY_HOST_SIZE];
    memset(host, 'x', sizeof host);
    if (relay_host_parse(text.data(), text.size(), host))
        return host;
    CHECK(std::string(host, sizeof host) == std::string(sizeof host, 'x'));
    return "(default)";
}

// First in the file: this is a new process's value.
TEST_CASE("a process knows the relay that it was built with")
{
    CHECK(std::string(relay_host_get()) == QV_RELAY_HOST);
}

TEST_CASE("a name or an address stands alone, with blanks and line ends around it")
{
    const std::string longest(127, 'a');
    const struct {
        std::string text, host;
    } rows[] = {
        {"relay.example.com", "relay.example.com"},
        {"192.0.2.7\n", "192.0.2.7"},
        {"relay\r\n", "relay"},
        {" \t\r\n relay \t\r\n\r\n ", "relay"},
        {"r", "r"},
        {"r\xc3\xa9lai", "r\xc3\xa9lai"}, // other bytes are left to the resolver
        {longest, longest},
        {" " + longest + "\r\n", longest},
    };
    for (const auto &row : rows) {
        CAPTURE(row.text);
        CHECK(parsed(row.text) == row.host);
    }
}

TEST_CASE("anything else leaves the default")
{
    for (const std::string &text :
         {std::string(), std::string(" "), std::string("\r\n\t "), std::string(128, 'a'),
          std::string("two words"), std::string("two\tparts"), std::string("one\ntwo"),
          std::string("one\r\n\r\ntwo\r\n"), std::string("relay:7001"), std::string("::1"),
          std::string(":relay"), std::string("relay:"), std::string("re\0lay", 6),
          std::string("relay\0", 6), std::string("\x01relay"), std::string("rel\x1f"),
          std::string("re\x7flay"), std::string("\vrelay"), std::string("relay\f")}) {
        CAPTURE(text);
        CHECK(parsed(text) == "(default)");
    }
}

TEST_CASE("every control character is refused inside")
{
    for (int c = 0; c < 256; c++) {
        CAPTURE(c);
        const std::string text = std::string("a") + (char)c + "b";
        CHECK((parsed(text) == text) == (c > ' ' && c != 0x7F && c != ':'));
    }
}

TEST_CASE("relay.txt counts when it is read, and only a sound one changes anything")
{
    temp_data_dir temp;
    char path[DATA_FILE_SIZE];
    data_dir_relay_path(path);
    CHECK(std::string(path) == temp.path("relay.txt"));

    relay_host_load(); // absent
    CHECK(std::string(relay_host_get()) == QV_RELAY_HOST);
    for (const std::string &text :
         {std::string(), std::string("a b"), std::string(128, 'a'), std::string("a:1"),
          std::string(1020, ' ') + "relay"}) { // 1025 bytes: beyond what is read
        temp.write("relay.txt", text);
        relay_host_load();
        CHECK(std::string(relay_host_get()) == QV_RELAY_HOST);
    }
    temp.write("relay.txt", "  relay.example.com\r\n");
    CHECK(std::string(relay_host_get()) == QV_RELAY_HOST); // not yet
    relay_host_load();
    CHECK(std::string(relay_host_get()) == "relay.example.com");
    temp.write("relay.txt", std::string(1019, ' ') + "relay"); // 1024 bytes
    relay_host_load();
    CHECK(std::string(relay_host_get()) == "relay");
}

TEST_CASE("a relay.txt that cannot be read leaves what stood")
{
    temp_data_dir temp;
    temp.make();
    std::filesystem::create_directory(temp.path("relay.txt"));
    const std::string before = relay_host_get();
    relay_host_load();
    CHECK(relay_host_get() == before);
    temp.make_unreachable();
    relay_host_load();
    CHECK(relay_host_get() == before);
}
