#include "relay/lobby.h"

#include "tests/test.h"

#include <list>
#include <string.h>

using namespace relay;

// A lobby with the defaults of the program, and the guests in it.
struct scene {
    options settings = *parse_options(1, arguments).settings;
    counters numbers = {};
    std::optional<lobby> tested;
    std::list<guest> guests;
    double now = 1000;
    connection_id last_id = 0;

    lobby &in()
    {
        if (!tested)
            tested.emplace(settings, numbers);
        return *tested;
    }

    // Connects and says hello; the guest is the last of the list.
    outcome come(char role, const char *room, const char *address, const char *name = "PC")
    {
        std::uint8_t bytes[RELAY_HELLO_BYTES] = {'Q', 'V', 'R', 'L', 2, (std::uint8_t)role};
        strncpy((char *)bytes + 6, room, 18);
        strncpy((char *)bytes + 24, name, 32);
        guest &g = guests.emplace_back(++last_id);
        REQUIRE(in().opens(g, now) == refusal::none);
        g.address = asio::ip::make_address(address);
        REQUIRE(in().arrives(g, now) == refusal::none);
        const char *detail = "";
        REQUIRE(in().greets(g, bytes, &detail) == refusal::none);
        return in().enters(g, now);
    }

    // A session of this room whose viewer has a wrong password.
    lobby::closure fail(const char *room, const char *address)
    {
        come('H', room, "127.0.0.9");
        const connection_id host = guests.back().id;
        const outcome o = come('V', room, address);
        REQUIRE(o.pair);
        const lobby::closure closed = in().fails_login(guests.back(), now);
        in().ends(host);
        guests.clear();
        return closed;
    }

  private:
    static constexpr const char *arguments[] = {"qv_relay"};
};

TEST_CASE("a connection has five seconds for its hello")
{
    scene s;
    guest g(1);
    CHECK(s.in().opens(g, 1000) == refusal::none);
    CHECK(g.deadline == 1005);
    CHECK(lobby::times_out(g) == refusal::hello_late);
}

TEST_CASE("a host waits for ever, also in line and after a hello that took its time")
{
    scene s;
    s.come('H', "1", "127.0.0.1");
    CHECK_FALSE(s.guests.back().deadline);
    CHECK(s.come('H', "1", "127.0.0.2").in_line);
    CHECK_FALSE(s.guests.back().deadline);
}

TEST_CASE("a viewer waits ten seconds from its hello on")
{
    scene s;
    s.come('V', "1", "127.0.0.1");
    CHECK(s.guests.back().deadline == 1010);
    CHECK(lobby::times_out(s.guests.back()) == refusal::no_host_came);
    CHECK(s.numbers.waiting_viewers == 1);
    s.now = 1009;
    s.come('V', "1", "127.0.0.1");
    CHECK(s.guests.back().deadline == 1019);
}

TEST_CASE("of failed log-ins ten a minute are free for a room, five for an address")
{
    scene s;
    for (int i = 0; i < 10; i++)
        CHECK(s.fail("1", ("127.0.1." + std::to_string(i)).c_str()).room == 0);
    CHECK(s.fail("1", "127.0.1.10").room == 5);
    CHECK(s.come('V', "1", "127.0.1.11").refused == refusal::back_off);
    CHECK(s.come('H', "1", "127.0.0.9").refused == refusal::none); // the host may come
    s.now += 5;
    CHECK(s.come('V', "1", "127.0.1.11").refused == refusal::none);

    for (int i = 0; i < 5; i++)
        CHECK(s.fail(("room" + std::to_string(i)).c_str(), "127.0.2.1").address == 0);
    CHECK(s.fail("room5", "127.0.2.1").address == 5);
    CHECK(s.come('V', "room6", "127.0.2.1").refused == refusal::back_off);
    CHECK(s.come('V', "room6", "127.0.2.2").refused == refusal::none);
    CHECK(s.numbers.failed_logins == 17);
}

TEST_CASE("a pair that ends is a failed log-in when the host sent its key and no more")
{
    struct row {
        std::uint64_t to_host, to_viewer;
        bool is_past, is_failure;
    };
    static constexpr row ROWS[] = {{48, 32, false, true},  {1000, 32, false, true},
                                   {47, 32, false, false}, {48, 31, false, false},
                                   {48, 33, false, false}, {48, 47, false, false},
                                   {48, 48, true, false},  {47, 48, false, false},
                                   {0, 0, false, false},   {5000, 48, true, false}};
    for (const row &r : ROWS) {
        CAPTURE(r.to_host);
        CAPTURE(r.to_viewer);
        const pair_progress p = {r.to_host, r.to_viewer};
        CHECK(p.is_past_handshake() == r.is_past);
        CHECK(p.is_failed_login() == r.is_failure);
    }
}

TEST_CASE("a list is judged before anybody is looked at, and hides who is there")
{
    scene s;
    s.settings.viewers = {*parse_range("127.0.0.0/24")};
    s.settings.allowed_ids = {"1"};
    CHECK(s.come('V', "2", "127.0.1.1").refused == refusal::address_not_allowed);
    CHECK(s.come('H', "2", "127.0.1.1").refused == refusal::id_not_allowed);
    CHECK(s.come('H', "1", "127.0.1.1").refused == refusal::none);
    s.in().drain();
    CHECK(s.come('V', "1", "127.0.1.1").refused == refusal::address_not_allowed);
    CHECK(s.come('V', "1", "127.0.0.1").refused == refusal::draining);
}

TEST_CASE("when all have gone nothing is counted")
{
    scene s;
    s.come('H', "1", "127.0.0.1");
    s.come('H', "1", "127.0.0.2");
    s.come('V', "2", "127.0.0.1");
    CHECK(s.numbers.connections == 3);
    CHECK(s.numbers.rooms == 2);
    CHECK_FALSE(s.in().is_empty());
    for (const guest &g : s.guests)
        s.in().ends(g.id);
    s.guests.clear();
    CHECK(s.in().is_empty());
    CHECK(s.numbers.connections == 0);
}
