#include "relay/room_table.h"

#include "tests/test.h"

#include <algorithm>
#include <list>

using namespace relay;

static asio::ip::address at(unsigned n)
{
    return asio::ip::address_v4(0x7F000000u + n);
}

static bool pairs(const outcome &o, connection_id host, connection_id viewer)
{
    return o.pair && o.pair->host == host && o.pair->viewer == viewer;
}

static bool does_nothing(const outcome &o)
{
    return o.refused == refusal::none && !o.in_line && o.close.empty() && !o.pair &&
           o.promoted == 0;
}

TEST_CASE("a host waits until a viewer comes, and a viewer until a host comes")
{
    room_table table({});
    CHECK(does_nothing(table.host_arrives(1, "a", "PC", at(1))));
    CHECK(table.waiting_hosts() == 1);
    CHECK(pairs(table.viewer_arrives(2, "a"), 1, 2));
    CHECK(table.waiting_hosts() == 0);
    CHECK(does_nothing(table.viewer_arrives(3, "b")));
    CHECK(table.waiting_viewers() == 1);
    CHECK(pairs(table.host_arrives(4, "b", "PC", at(1)), 4, 3));
    CHECK(table.waiting_viewers() == 0);
    CHECK(table.rooms() == 2);
    CHECK(table.is_consistent());
}

TEST_CASE("rooms differ in any byte of their name")
{
    room_table table({});
    table.host_arrives(1, "123456789", "PC", at(1));
    for (const char *other : {"12345678", "1234567890", "123456788", " 123456789"})
        CHECK_FALSE(table.viewer_arrives(2 + other[0] + strlen(other), other).pair);
    CHECK(pairs(table.viewer_arrives(99999, "123456789"), 1, 99999));
}

TEST_CASE("viewers of one room are served in the order in which they came")
{
    room_table table({});
    for (connection_id viewer : {11, 12, 13})
        CHECK(does_nothing(table.viewer_arrives(viewer, "a")));
    table.ends(12);
    CHECK(pairs(table.host_arrives(1, "a", "PC", at(1)), 1, 11));
    CHECK(does_nothing(table.ends(1)));
    CHECK(pairs(table.host_arrives(2, "a", "PC", at(1)), 2, 13));
}

TEST_CASE("a busy host's next viewer waits for its next connection")
{
    room_table table({});
    table.host_arrives(1, "a", "PC", at(1));
    table.viewer_arrives(2, "a");
    CHECK(does_nothing(table.viewer_arrives(3, "a")));
    table.ends(1);
    CHECK(pairs(table.host_arrives(4, "a", "PC", at(1)), 4, 3));
}

TEST_CASE("a host that comes again takes its own place")
{
    room_table table({});
    table.host_arrives(1, "a", "PC", at(1));
    const outcome o = table.host_arrives(2, "a", "PC", at(1));
    CHECK(o.close == std::vector<connection_id>{1});
    CHECK_FALSE(o.in_line);
    CHECK(table.waiting_hosts() == 1);
    CHECK(does_nothing(table.ends(1))); // out already
    CHECK(pairs(table.viewer_arrives(3, "a"), 2, 3));
}

TEST_CASE("a host that comes again ends the session of its stale connection")
{
    room_table table({});
    table.host_arrives(1, "a", "PC", at(1));
    table.viewer_arrives(2, "a");
    table.viewer_arrives(3, "a");
    const outcome o = table.host_arrives(4, "a", "PC", at(1));
    CHECK(o.close == std::vector<connection_id>{1});
    CHECK(pairs(o, 4, 3)); // the viewer that waited
    CHECK(table.is_consistent());
}

TEST_CASE("a host of the same name from elsewhere waits for the owner's end")
{
    for (const bool busy : {false, true}) {
        CAPTURE(busy);
        room_table table({});
        table.host_arrives(1, "a", "PC", at(1));
        if (busy)
            table.viewer_arrives(10, "a");
        outcome o = table.host_arrives(2, "a", "PC", at(2));
        CHECK(o.in_line);
        CHECK(o.close.empty());
        CHECK(table.waiting_hosts() == (busy ? 0 : 1)); // who is in line waits for no viewer
        if (!busy)
            CHECK(pairs(table.viewer_arrives(11, "a"), 1, 11));
        CHECK(does_nothing(table.viewer_arrives(12, "a")));
        o = table.ends(1);
        CHECK(o.promoted == 2);
        CHECK(pairs(o, 2, 12));
        CHECK(table.is_consistent());
    }
}

TEST_CASE("the line has one place, whose holder may come again")
{
    room_table table({});
    table.host_arrives(1, "a", "PC", at(1));
    CHECK(table.host_arrives(2, "a", "PC", at(2)).in_line);
    CHECK(table.host_arrives(3, "a", "PC", at(3)).refused == refusal::line_taken);
    const outcome o = table.host_arrives(4, "a", "PC", at(2));
    CHECK(o.in_line);
    CHECK(o.close == std::vector<connection_id>{2});
    CHECK(does_nothing(table.ends(4)));
    CHECK(table.host_arrives(5, "a", "PC", at(3)).in_line);
    // The owner's own return does not touch the line.
    CHECK(table.host_arrives(6, "a", "PC", at(1)).close == std::vector<connection_id>{1});
    CHECK(table.ends(6).promoted == 5);
    CHECK(table.is_consistent());
}

TEST_CASE("a host of another name is refused, wherever it comes from")
{
    room_table table({});
    table.host_arrives(1, "a", "PC", at(1));
    CHECK(table.host_arrives(2, "a", "pc", at(1)).refused == refusal::room_taken);
    CHECK(table.host_arrives(3, "a", "OTHER", at(2)).refused == refusal::room_taken);
    CHECK(pairs(table.viewer_arrives(4, "a"), 1, 4)); // the owner noticed nothing
    CHECK(table.host_arrives(5, "a", "OTHER", at(2)).refused == refusal::room_taken);
    table.ends(1);
    CHECK(does_nothing(table.host_arrives(6, "a", "OTHER", at(2))));
}

TEST_CASE("the limits count rooms of either kind and the viewers of one room")
{
    room_table table({.rooms = 2, .viewers_per_room = 2});
    table.host_arrives(1, "a", "PC", at(1));
    table.viewer_arrives(2, "b");
    CHECK(table.host_arrives(3, "c", "PC", at(1)).refused == refusal::rooms);
    CHECK(table.viewer_arrives(4, "c").refused == refusal::rooms);
    CHECK(table.viewer_arrives(5, "b").refused == refusal::none); // no new room
    CHECK(table.viewer_arrives(6, "b").refused == refusal::viewers_in_room);
    table.ends(5);
    CHECK(table.viewer_arrives(7, "b").refused == refusal::none);
    table.ends(1);
    CHECK(table.host_arrives(8, "c", "PC", at(1)).refused == refusal::none);
    CHECK(table.is_consistent());
}

// ---------------------------------------------------------------------------------------
// Random sequences against a model: lists that are searched from end to end.

namespace
{

struct model_host {
    connection_id id;
    std::string room, name;
    unsigned address;
    bool busy, in_line;
};

struct model {
    std::list<model_host> hosts;
    std::list<std::pair<connection_id, std::string>> viewers;
    room_limits limits;

    model_host *find(const std::string &room, bool in_line)
    {
        for (model_host &h : hosts)
            if (h.room == room && h.in_line == in_line)
                return &h;
        return nullptr;
    }

    std::size_t rooms() const
    {
        std::vector<std::string> names;
        for (const auto &h : hosts)
            names.push_back(h.room);
        for (const auto &v : viewers)
            names.push_back(v.second);
        std::sort(names.begin(), names.end());
        return (std::size_t)(std::unique(names.begin(), names.end()) - names.begin());
    }

    bool is_new_and_one_too_many(const std::string &room)
    {
        const bool is_known =
            find(room, false) || std::any_of(viewers.begin(), viewers.end(),
                                             [&](auto &v) { return v.second == room; });
        return !is_known && rooms() >= limits.rooms;
    }

    void meet(const std::string &room, outcome &o)
    {
        model_host *owner = find(room, false);
        const auto viewer = std::find_if(viewers.begin(), viewers.end(),
                                         [&](auto &v) { return v.second == room; });
        if (owner && !owner->busy && viewer != viewers.end()) {
            owner->busy = true;
            o.pair = {owner->id, viewer->first};
            viewers.erase(viewer);
        }
    }

    outcome host_arrives(connection_id id, const std::string &room, const std::string &name,
                         unsigned address)
    {
        outcome o;
        model_host *owner = find(room, false), *next = find(room, true);
        if (is_new_and_one_too_many(room)) {
            o.refused = refusal::rooms;
        } else if (owner && owner->name != name) {
            o.refused = refusal::room_taken;
        } else if (!owner) {
            hosts.push_back({id, room, name, address, false, false});
        } else if (owner->address == address) {
            o.close.push_back(owner->id);
            *owner = {id, room, name, address, false, false};
        } else if (!next) {
            hosts.push_back({id, room, name, address, false, true});
            o.in_line = true;
        } else if (next->address == address) {
            o.close.push_back(next->id);
            next->id = id;
            o.in_line = true;
        } else {
            o.refused = refusal::line_taken;
        }
        if (o.refused == refusal::none)
            meet(room, o);
        return o;
    }

    outcome viewer_arrives(connection_id id, const std::string &room)
    {
        outcome o;
        const auto waiting = std::count_if(viewers.begin(), viewers.end(),
                                           [&](auto &v) { return v.second == room; });
        if (is_new_and_one_too_many(room))
            o.refused = refusal::rooms;
        else if ((std::size_t)waiting >= limits.viewers_per_room)
            o.refused = refusal::viewers_in_room;
        else
            viewers.push_back({id, room});
        if (o.refused == refusal::none)
            meet(room, o);
        return o;
    }

    outcome ends(connection_id id)
    {
        outcome o;
        viewers.remove_if([&](auto &v) { return v.first == id; });
        const auto h =
            std::find_if(hosts.begin(), hosts.end(), [&](auto &x) { return x.id == id; });
        if (h == hosts.end())
            return o;
        const model_host gone = *h;
        hosts.erase(h);
        if (gone.in_line)
            return o;
        if (model_host *next = find(gone.room, true)) {
            next->in_line = false;
            o.promoted = next->id;
            meet(gone.room, o);
        }
        return o;
    }

    std::size_t waiting_hosts() const
    {
        return (std::size_t)std::count_if(hosts.begin(), hosts.end(),
                                          [](auto &h) { return !h.busy && !h.in_line; });
    }
};

} // namespace

static bool same(const outcome &a, const outcome &b)
{
    const auto pair = [](const outcome &o) {
        return o.pair ? std::pair(o.pair->host, o.pair->viewer) : std::pair(0ul, 0ul);
    };
    return a.refused == b.refused && a.in_line == b.in_line && a.close == b.close &&
           pair(a) == pair(b) && a.promoted == b.promoted;
}

TEST_CASE("random arrivals and ends do what the model does")
{
    test_random random = test_random_seeded("room_table");
    std::array<std::uint64_t, 7> seen = {}; // what happened, so that all of it does
    for (int round = 0; round < 300; round++) {
        const room_limits limits = {.rooms = 1 + random.below(6),
                                    .viewers_per_room = 1 + random.below(3)};
        room_table table(limits);
        model expected;
        expected.limits = limits;
        std::vector<connection_id> known;
        const std::uint64_t rooms = 1 + random.below(8), names = 1 + random.below(3),
                            addresses = 1 + random.below(3);
        for (connection_id id = 1; id <= 200; id++) {
            const std::string room(1, (char)('a' + random.below(rooms)));
            const std::string name(1, (char)('A' + random.below(names)));
            const unsigned address = (unsigned)random.below(addresses);
            outcome got, want;
            switch (random.below(3)) {
            case 0:
                got = table.host_arrives(id, room, name, at(address));
                want = expected.host_arrives(id, room, name, address);
                break;
            case 1:
                got = table.viewer_arrives(id, room);
                want = expected.viewer_arrives(id, room);
                break;
            default: // of anybody so far, also who is gone or was refused
                const connection_id gone = 1 + random.below(id);
                got = table.ends(gone);
                want = expected.ends(gone);
                break;
            }
            REQUIRE(same(got, want));
            REQUIRE(table.rooms() == expected.rooms());
            REQUIRE(table.waiting_hosts() == expected.waiting_hosts());
            REQUIRE(table.waiting_viewers() == expected.viewers.size());
            REQUIRE(table.is_consistent());
            seen[0] += got.pair.has_value();
            seen[1] += got.in_line;
            seen[2] += got.promoted != 0 && got.pair;
            seen[3] += got.refused == refusal::line_taken;
            seen[4] += got.refused == refusal::rooms;
            seen[5] += got.refused == refusal::viewers_in_room;
            seen[6] += !got.close.empty() && got.pair;
        }
    }
    for (const std::uint64_t times : seen)
        CHECK(times > 0);
}
