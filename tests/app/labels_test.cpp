#include "app/labels.h"

#include "identity/host_identity.h"
#include "tests/test.h"

#include <string>

using namespace app;

static std::string id_label(const char *id)
{
    char label[LABEL_SIZE];
    label_id(label, id);
    return label;
}

static std::string status(int32_t state, const std::string &peer, const std::string &relay,
                          const std::string &computer)
{
    char label[LABEL_SIZE];
    label_status(label, state, peer.c_str(), relay.c_str(), computer.c_str());
    return label;
}

TEST_CASE("nine digits are shown in three groups of three")
{
    CHECK(id_label("123456789") == "123 456 789");
    CHECK(id_label("000000000") == "000 000 000");
}

TEST_CASE("of a longer ID the first nine characters are shown")
{
    CHECK(id_label("123456789012345") == "123 456 789");
    CHECK(id_label("workshop-pc-17") == "wor ksh op-");
}

TEST_CASE("a shorter ID is shown as far as it goes")
{
    CHECK(id_label("1234") == "123 4");
    CHECK(id_label("") == "");
}

TEST_CASE("the status says what the host does")
{
    CHECK(status(HOST_OFFLINE, "DESK", "relay", "PC") == "Starting...");
    CHECK(status(HOST_WAITING, "DESK", "relay.example.com", "PC") ==
          "Online via relay.example.com, waiting for a viewer  (PC)");
    CHECK(status(HOST_SERVING, "DESK", "relay", "PC") ==
          "Connected: DESK is viewing this computer");
    CHECK(status(3, "DESK", "relay", "PC") == "Starting...");
    CHECK(status(-1, "DESK", "relay", "PC") == "Starting...");
}

TEST_CASE("names are no formats")
{
    CHECK(status(HOST_SERVING, "%s%n", "relay", "PC") ==
          "Connected: %s%n is viewing this computer");
    CHECK(id_label("%s%n%d%s%n") == "%s% n%d %s%");
}

TEST_CASE("a status that is longer than a label is cut")
{
    const std::string relay(127, 'r'), computer(100, 'c');
    const std::string whole =
        "Online via " + relay + ", waiting for a viewer  (" + computer + ")";
    CHECK(status(HOST_WAITING, "", relay, computer) == whole.substr(0, LABEL_SIZE - 1));
}
