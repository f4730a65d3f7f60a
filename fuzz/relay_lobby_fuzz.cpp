// Options: -max_len=1024
// Seeds: 60 1000
//
// The relay's lobby: connections come from several addresses, directly and behind a proxy, say
// hellos honest and damaged, wait, meet, fail to log in, replace each other, end, or have had
// their time, while a scripted clock goes on. This file is the one that acts on what the lobby
// decides; a model of lists that are searched from end to end says beforehand what that must
// be: every refusal, every pair, every deadline, every count. Rates are held against what they
// promise for every stretch of time, not against another bucket.
#include "fuzz/fuzz.h"
#include "relay/lobby.h"

#include <algorithm>
#include <array>
#include <list>
#include <map>
#include <memory>

using namespace relay;

static constexpr double TICK_S = 0.125; // with the rates below every sum is exact

// Where connections come from. What the lists and the limits make of it is written down here.
struct place {
    const char *address;
    int key; // places with the same one are counted together
    bool may_host, may_view;
};
static constexpr place PLACES[] = {
    {"192.0.2.1", 1, true, false},         {"192.0.2.2", 2, true, true},
    {"198.51.100.1", 3, false, true},      {"2001:db8::1", 4, true, false},
    {"2001:db8::2:0:0:1", 4, true, false}, {"2001:db8:0:1::1", 5, false, true},
    {"2001:db8::7", 4, true, true},
};
static const char *const ALLOWED_HOSTS[] = {"192.0.2.0/24", "2001:db8::/64"};
static const char *const ALLOWED_VIEWERS[] = {"192.0.2.2", "198.51.100.0/25",
                                              "2001:db8:0:1::/64", "2001:db8::7"};
static const char *const ROOMS[] = {
    "1", "2", "3", "123456789012345678", "123456789012345679", "12345678901234567"};
static const char *const NAMES[] = {"PC", "pc", "", "12345678901234567890123456789012"};

// So many at once and so many a second: of any stretch of time that begins with a taking.
struct rate_model {
    double rate, size;
    std::vector<double> taken;

    double left(double now) const
    {
        double least = size;
        for (size_t i = 0; i < taken.size(); i++)
            least =
                std::min(least, size - (double)(taken.size() - i) + rate * (now - taken[i]));
        return least;
    }
    bool take(double now)
    {
        if (left(now) < 1)
            return false;
        taken.push_back(now);
        return true;
    }
};

struct login_model {
    rate_model rate;
    double next_s = 5, until = 0;

    double fail(double now)
    {
        if (rate.left(now) == rate.size)
            next_s = 5;
        if (rate.take(now))
            return 0;
        const double closed = next_s;
        until = now + closed;
        next_s = std::min(300.0, 2 * closed);
        return closed;
    }
};

enum class stage { connected, owner, in_line, busy_owner, waiting_viewer, busy_viewer };

struct peer {
    std::unique_ptr<guest> known;
    const place *from;
    stage at = stage::connected;
    double deadline = -1; // none
    bool is_host = false;
    std::string room, name;
};

struct running_pair {
    connection_id host, viewer;
    double deadline;
    pair_progress progress;
};

struct script {
    options settings = {};
    counters numbers = {};
    std::unique_ptr<lobby> tested;
    std::list<peer> peers; // in the order in which they entered: viewers are served so
    std::list<running_pair> pairs;
    std::map<int, rate_model> accepts;
    std::map<std::string, login_model> room_logins;
    std::map<int, login_model> address_logins;
    double now = 1000;
    connection_id last_id = 0;
    bool draining = false;
    std::array<uint64_t, (size_t)refusal::count> refused = {};
    uint64_t hosts = 0, viewers = 0, failed_logins = 0;

    peer *find(connection_id id)
    {
        for (peer &p : peers)
            if (p.known->id == id)
                return &p;
        return nullptr;
    }
    peer *host_of(const std::string &room, bool in_line)
    {
        for (peer &p : peers)
            if (p.room == room && (in_line ? p.at == stage::in_line
                                           : p.at == stage::owner || p.at == stage::busy_owner))
                return &p;
        return nullptr;
    }
    std::vector<peer *> waiting_viewers(const std::string &room)
    {
        std::vector<peer *> found;
        for (peer &p : peers)
            if (p.room == room && p.at == stage::waiting_viewer)
                found.push_back(&p);
        return found;
    }
    size_t rooms()
    {
        std::vector<std::string> names;
        for (const peer &p : peers)
            if (p.at != stage::connected && p.at != stage::busy_viewer)
                names.push_back(p.room);
        std::sort(names.begin(), names.end());
        return (size_t)(std::unique(names.begin(), names.end()) - names.begin());
    }
    size_t count(stage at)
    {
        return (size_t)std::count_if(peers.begin(), peers.end(),
                                     [&](const peer &p) { return p.at == at; });
    }
};

static void forget(script &s, connection_id id)
{
    s.peers.remove_if([&](const peer &p) { return p.known->id == id; });
}

// What the lobby must find when a host and a viewer of this room may meet now.
static std::optional<pairing> due_pair(script &s, const std::string &room)
{
    const peer *owner = s.host_of(room, false);
    const auto viewers = s.waiting_viewers(room);
    if (!owner || owner->at != stage::owner || viewers.empty())
        return {};
    return pairing{owner->known->id, viewers.front()->known->id};
}

static void check_pair(script &s, const outcome &o, const std::string &room)
{
    const auto due = due_pair(s, room);
    FUZZ_CHECK(o.pair.has_value() == due.has_value());
    if (!due)
        return;
    FUZZ_CHECK(o.pair->host == due->host && o.pair->viewer == due->viewer);
    s.pairs.push_back({due->host, due->viewer, s.now + s.settings.handshake_seconds, {}});
    peer *host = s.find(due->host), *viewer = s.find(due->viewer);
    host->at = stage::busy_owner;
    viewer->at = stage::busy_viewer;
    viewer->deadline = -1;
}

static void check_nothing(const outcome &o)
{
    FUZZ_CHECK(o.refused == refusal::none && !o.in_line && o.close.empty() && !o.pair &&
               o.promoted == 0);
}

static void end_peer(script &s, connection_id id);

// Both ends of a pair have ended. The host may have been put out of the lobby before.
static void end_pair(script &s, connection_id host, bool stalled)
{
    const auto it = std::find_if(s.pairs.begin(), s.pairs.end(),
                                 [&](const running_pair &p) { return p.host == host; });
    const running_pair ended = *it;
    s.pairs.erase(it);
    const peer *viewer = s.find(ended.viewer);
    if (!stalled && ended.progress.is_failed_login()) {
        const auto model = [](double a_minute) {
            return login_model{{a_minute / 60, a_minute, {}}};
        };
        login_model &by_room =
            s.room_logins.try_emplace(viewer->room, model(s.settings.logins_per_room))
                .first->second;
        login_model &by_key =
            s.address_logins
                .try_emplace(viewer->from->key, model(s.settings.logins_per_address))
                .first->second;
        const lobby::closure closed = s.tested->fails_login(*viewer->known, s.now);
        FUZZ_CHECK(closed.room == by_room.fail(s.now));
        FUZZ_CHECK(closed.address == by_key.fail(s.now));
        s.failed_logins++;
    }
    forget(s, ended.viewer);
    check_nothing(s.tested->ends(ended.viewer)); // out since it met its host
    if (s.find(ended.host))
        end_peer(s, ended.host);
    else
        check_nothing(s.tested->ends(ended.host));
}

static void end_peer(script &s, connection_id id)
{
    for (const running_pair &pair : s.pairs)
        if (pair.host == id || pair.viewer == id)
            return end_pair(s, pair.host, false);
    const stage was = s.find(id)->at;
    const std::string room = s.find(id)->room;
    forget(s, id);
    const outcome o = s.tested->ends(id);
    if (was == stage::connected) { // it never entered
        check_nothing(o);
        return;
    }
    FUZZ_CHECK(o.refused == refusal::none && !o.in_line && o.close.empty());
    peer *next = nullptr;
    if (was == stage::owner || was == stage::busy_owner)
        next = s.host_of(room, true);
    FUZZ_CHECK(o.promoted == (next ? next->known->id : 0));
    if (next)
        next->at = stage::owner;
    check_pair(s, o, room);
    check_nothing(s.tested->ends(id)); // twice is once
}

// Somebody is sent away, as the model says he must be, or not.
static bool is_refused(script &s, connection_id id, refusal got, refusal due)
{
    FUZZ_CHECK(got == due);
    if (got == refusal::none)
        return false;
    s.refused[(size_t)got]++;
    forget(s, id);
    return true;
}

// The header of a proxy for a client there, and what comes of it: false when it is none.
static bool read_proxy_header(fuzz_input *in, const place &from, asio::ip::address *address)
{
    const auto client = asio::ip::make_address(from.address);
    const uint8_t kind = take_u8(in);
    std::vector<uint8_t> source, body;
    if (client.is_v4() && kind & 1) { // as it is written where all is IPv6
        source.assign(10, 0);
        source.insert(source.end(), 2, 0xFF);
    }
    if (client.is_v4())
        for (const uint8_t byte : client.to_v4().to_bytes())
            source.push_back(byte);
    else
        for (const uint8_t byte : client.to_v6().to_bytes())
            source.push_back(byte);
    body = source;
    body.insert(body.end(), source.begin(), source.end());
    body.insert(body.end(), 4, 0x1B); // two ports
    const std::vector<uint8_t> more = take_bytes(in, kind & 2 ? take_u8(in) : 0);
    body.insert(body.end(), more.begin(), more.end());
    std::vector<uint8_t> bytes = {0x0D, 0x0A, 0x0D, 0x0A, 0x00, 0x0D,
                                  0x0A, 0x51, 0x55, 0x49, 0x54, 0x0A};
    const std::vector<uint8_t> signature = bytes;
    bytes.push_back(0x21);
    bytes.push_back(source.size() == 4 ? 0x11 : 0x21);
    bytes.push_back((uint8_t)(body.size() >> 8));
    bytes.push_back((uint8_t)body.size());
    bytes.insert(bytes.end(), body.begin(), body.end());
    const bool is_damaged = kind & 4;
    if (is_damaged)
        take_damage(in, &bytes);
    if (bytes.size() < PROXY_HEADER_BYTES)
        return false;

    const auto header =
        parse_proxy_header(std::span<const uint8_t, PROXY_HEADER_BYTES>(bytes.data(), 16));
    const size_t size = (size_t)(bytes[14] * 256 + bytes[15]);
    const bool is_header = std::equal(signature.begin(), signature.end(), bytes.begin()) &&
                           (bytes[12] & 0xFE) == 0x20 && size <= 2048;
    FUZZ_CHECK(header.has_value() == is_header);
    if (!is_header || bytes.size() - 16 < size)
        return false;
    FUZZ_CHECK(header->body_bytes == size && header->has_client == (bytes[12] == 0x21));
    if (!header->has_client)
        return false; // a health check
    const exact_bytes exact(
        std::vector<uint8_t>(bytes.begin() + 16, bytes.begin() + 16 + (ptrdiff_t)size));
    const auto said = parse_proxy_source(*header, {exact.data, exact.size});
    const bool is_v4 = bytes[13] == 0x11 && size >= 12, is_v6 = bytes[13] == 0x21 && size >= 36;
    FUZZ_CHECK(said.has_value() == (is_v4 || is_v6));
    if (!said)
        return false;
    if (!is_damaged)
        FUZZ_CHECK(*said == client);
    *address = *said;
    return *said == client; // nowhere that the model knows, otherwise
}

// A connection from there, which says so itself or has a proxy say it. Its number; 0 when it
// was not taken.
static connection_id connect(script &s, const place &from, fuzz_input *proxy_header)
{
    const size_t before = s.peers.size();
    peer p = {.known = std::make_unique<guest>(++s.last_id), .from = &from};
    guest &g = *p.known;
    s.peers.push_back(std::move(p));
    const bool is_full = before + 1 > s.settings.connections;
    if (is_refused(s, g.id, s.tested->opens(g, s.now),
                   is_full ? refusal::connections : refusal::none))
        return 0;
    s.peers.back().deadline = s.now + 5;
    g.address = asio::ip::make_address(from.address);
    if (proxy_header && !read_proxy_header(proxy_header, from, &g.address)) {
        forget(s, g.id);
        return 0;
    }
    rate_model &rate = s.accepts
                           .try_emplace(from.key, rate_model{s.settings.accepts_per_address,
                                                             s.settings.accept_burst,
                                                             {}})
                           .first->second;
    const auto from_there =
        std::count_if(s.peers.begin(), s.peers.end(),
                      [&](const peer &other) { return other.from->key == from.key; });
    refusal due = refusal::none;
    if (!rate.take(s.now))
        due = refusal::accept_rate;
    else if ((size_t)from_there > s.settings.connections_per_address)
        due = refusal::connections_of_address;
    const connection_id id = g.id;
    return is_refused(s, id, s.tested->arrives(g, s.now), due) ? 0 : id;
}

static refusal due_refusal(script &s, const peer &p)
{
    const bool has_lists = !s.settings.hosts.empty();
    if (has_lists && !(p.is_host ? p.from->may_host : p.from->may_view))
        return refusal::address_not_allowed;
    if (s.settings.allowed_ids && p.room != ROOMS[0] && p.room != ROOMS[2] &&
        p.room != ROOMS[3])
        return refusal::id_not_allowed;
    const auto by_room = s.room_logins.find(p.room);
    const auto by_key = s.address_logins.find(p.from->key);
    if (!p.is_host && ((by_room != s.room_logins.end() && s.now < by_room->second.until) ||
                       (by_key != s.address_logins.end() && s.now < by_key->second.until)))
        return refusal::back_off;
    if (s.draining)
        return refusal::draining;
    peer *owner = s.host_of(p.room, false), *next = s.host_of(p.room, true);
    const size_t viewers = s.waiting_viewers(p.room).size();
    if (!owner && viewers == 0 && s.rooms() >= s.settings.rooms)
        return refusal::rooms;
    if (!p.is_host)
        return viewers >= s.settings.viewers_per_room ? refusal::viewers_in_room
                                                      : refusal::none;
    if (owner && owner->name != p.name)
        return refusal::room_taken;
    if (owner && owner->from != p.from && next && next->from != p.from)
        return refusal::line_taken;
    return refusal::none;
}

static std::vector<uint8_t> hello_of(char role, const char *room, const char *name)
{
    std::vector<uint8_t> bytes(RELAY_HELLO_BYTES);
    memcpy(bytes.data(), "QVRL\x02", 5);
    bytes[5] = (uint8_t)role;
    memcpy(&bytes[6], room, strlen(room));
    memcpy(&bytes[24], name, strlen(name));
    return bytes;
}

static void greet(script &s, connection_id id, const std::vector<uint8_t> &bytes)
{
    s.peers.splice(s.peers.end(), s.peers,
                   std::find_if(s.peers.begin(), s.peers.end(),
                                [&](const peer &p) { return p.known->id == id; }));
    peer &p = s.peers.back();
    guest &g = *p.known;
    const bool is_hello = bytes[0] == 'Q' && bytes[1] == 'V' && bytes[2] == 'R' &&
                          bytes[3] == 'L' && bytes[4] == 2 &&
                          (bytes[5] == 'H' || bytes[5] == 'V') && bytes[6] != 0;
    const char *detail = nullptr;
    const refusal said = s.tested->greets(
        g, std::span<const uint8_t, RELAY_HELLO_BYTES>(bytes.data(), 56), &detail);
    FUZZ_CHECK(is_hello == (detail == nullptr));
    if (is_refused(s, id, said, is_hello ? refusal::none : refusal::bad_hello))
        return;
    p.is_host = bytes[5] == 'H';
    for (size_t i = 6; i < 24 && bytes[i] != 0; i++)
        p.room.push_back((char)bytes[i]);
    for (size_t i = 24; i < 56 && bytes[i] != 0; i++)
        p.name.push_back((char)bytes[i]);
    FUZZ_CHECK(g.is_host == p.is_host && g.room == p.room && g.name == p.name);
    FUZZ_CHECK(printable(g.name).size() == g.name.size());

    const refusal due = due_refusal(s, p);
    const outcome o = s.tested->enters(g, s.now);
    if (due != refusal::none)
        FUZZ_CHECK(!o.in_line && o.close.empty() && !o.pair && o.promoted == 0);
    if (is_refused(s, id, o.refused, due))
        return;
    FUZZ_CHECK(o.promoted == 0);
    if (!p.is_host) {
        s.viewers++;
        FUZZ_CHECK(!o.in_line && o.close.empty());
        p.at = stage::waiting_viewer;
        p.deadline = s.now + 10;
        check_pair(s, o, p.room);
        return;
    }
    s.hosts++;
    p.deadline = -1;
    peer *owner = s.host_of(p.room, false), *next = s.host_of(p.room, true);
    p.at = owner && owner->from != p.from ? stage::in_line : stage::owner;
    FUZZ_CHECK(o.in_line == (p.at == stage::in_line));
    peer *old = p.at == stage::in_line ? next : owner;
    FUZZ_CHECK(o.close.size() == (old ? 1 : 0));
    if (!old) {
        check_pair(s, o, p.room);
        return;
    }
    // Nobody is pushed aside but by the same machine.
    FUZZ_CHECK(o.close[0] == old->known->id);
    FUZZ_CHECK(old->known->address == g.address && old->name == p.name && old->room == p.room);
    const connection_id old_id = old->known->id;
    const bool was_busy = old->at == stage::busy_owner;
    forget(s, old_id);
    check_pair(s, o, p.room);
    if (was_busy)
        end_pair(s, old_id, false);
    else
        check_nothing(s.tested->ends(old_id));
}

static void greet_somehow(script &s, fuzz_input *in)
{
    std::vector<connection_id> connected;
    for (const peer &p : s.peers)
        if (p.at == stage::connected)
            connected.push_back(p.known->id);
    if (connected.empty())
        return;
    const connection_id id = connected[take_u8(in) % connected.size()];
    const uint8_t kind = take_u8(in);
    std::vector<uint8_t> bytes =
        hello_of(kind & 1 ? 'H' : 'V', ROOMS[take_u8(in) % std::size(ROOMS)],
                 NAMES[(kind >> 1) % std::size(NAMES)]);
    if (kind >= 0xE0) {
        take_damage(in, &bytes);
        bytes.resize(RELAY_HELLO_BYTES);
    }
    greet(s, id, bytes);
}

// So many sessions of a room whose viewer has a wrong password, one after the other.
static void fail_to_log_in(script &s, fuzz_input *in)
{
    const char *room = ROOMS[take_u8(in) % std::size(ROOMS)];
    const place &from = PLACES[take_u8(in) % std::size(PLACES)];
    for (uint32_t times = 1 + take_below(in, 12); times > 0; times--) {
        const connection_id host = connect(s, PLACES[1], nullptr);
        if (host != 0)
            greet(s, host, hello_of('H', room, NAMES[0]));
        const connection_id viewer = connect(s, from, nullptr);
        if (viewer != 0)
            greet(s, viewer, hello_of('V', room, NAMES[0]));
        for (running_pair &p : s.pairs)
            if (p.viewer == viewer) {
                p.progress = {48, 32};
                end_pair(s, p.host, false);
                break;
            }
    }
}

static void check(script &s)
{
    FUZZ_CHECK(s.tested->is_consistent());
    FUZZ_CHECK(s.numbers.connections == s.peers.size());
    FUZZ_CHECK(s.numbers.rooms == s.rooms());
    FUZZ_CHECK(s.numbers.waiting_hosts == s.count(stage::owner));
    FUZZ_CHECK(s.numbers.waiting_viewers == s.count(stage::waiting_viewer));
    FUZZ_CHECK(s.numbers.hosts == s.hosts && s.numbers.viewers == s.viewers);
    FUZZ_CHECK(s.numbers.failed_logins == s.failed_logins);
    for (const peer &p : s.peers) {
        if (p.at != stage::busy_viewer) // whose wait is over
            FUZZ_CHECK(p.known->deadline.value_or(-1) == p.deadline);
        if (p.at == stage::owner) // nobody who could meet it is left waiting
            FUZZ_CHECK(s.waiting_viewers(p.room).empty());
        if (p.at == stage::in_line)
            FUZZ_CHECK(s.host_of(p.room, false));
    }
}

// The clock goes on; whose time has come is sent away, the first first.
static void pass_time(script &s, double until)
{
    for (;;) {
        double first = until;
        connection_id guest_due = 0, pair_due = 0;
        for (const peer &p : s.peers)
            if (p.deadline >= 0 && p.deadline <= first) {
                first = p.deadline;
                guest_due = p.known->id;
            }
        for (const running_pair &p : s.pairs)
            if (!p.progress.is_past_handshake() && p.deadline <= first) {
                first = p.deadline;
                pair_due = p.host;
            }
        s.now = std::max(s.now, first);
        if (pair_due != 0) {
            end_pair(s, pair_due, true);
        } else if (guest_due != 0) {
            const peer &p = *s.find(guest_due);
            const refusal why = lobby::times_out(*p.known);
            FUZZ_CHECK(why == (p.at == stage::connected ? refusal::hello_late
                                                        : refusal::no_host_came));
            end_peer(s, guest_due);
        } else {
            return;
        }
        check(s);
    }
}

static void step(script &s, fuzz_input *in)
{
    switch (take_below(in, 8)) {
    case 0:
    case 1: {
        const uint8_t which = take_u8(in);
        (void)connect(s, PLACES[which % std::size(PLACES)], which & 0x80 ? in : nullptr);
        break;
    }
    case 2:
    case 3:
        greet_somehow(s, in);
        break;
    case 4:
        if (!s.peers.empty())
            end_peer(s, std::next(s.peers.begin(), (ptrdiff_t)(take_u16(in) % s.peers.size()))
                            ->known->id);
        break;
    case 5: {
        const uint8_t ticks = take_u8(in);
        pass_time(s, s.now + TICK_S * (ticks < 200 ? ticks % 20 : 40 * (ticks - 199)));
        break;
    }
    case 6: // bytes pass: the parts of a handshake, more often than not
        if (!s.pairs.empty()) {
            static constexpr uint64_t STEPS[] = {32, 16, 48, 1, 0, 47, 100, 33};
            running_pair &p =
                *std::next(s.pairs.begin(), (ptrdiff_t)(take_u8(in) % s.pairs.size()));
            const uint8_t which = take_u8(in);
            p.progress.to_host += STEPS[which % 8];
            p.progress.to_viewer += STEPS[which / 8 % 8];
            const bool is_past = p.progress.to_host > 47 && p.progress.to_viewer > 47;
            FUZZ_CHECK(p.progress.is_past_handshake() == is_past);
            FUZZ_CHECK(p.progress.is_failed_login() ==
                       (p.progress.to_host > 47 && p.progress.to_viewer == 32));
            if (which & 0x80)
                end_pair(s, p.host, false);
        }
        break;
    default:
        if (take_u8(in) != 0xFF) {
            fail_to_log_in(s, in);
        } else if (!s.draining) {
            s.draining = true;
            s.tested->drain();
        }
        break;
    }
    check(s);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    script s;
    static constexpr double RATES[] = {0.125, 0.5, 1, 8};
    const uint8_t lists = take_u8(&in);
    s.settings.hello_seconds = 5;
    s.settings.viewer_wait_seconds = 10;
    s.settings.handshake_seconds = 10;
    s.settings.rooms = 1 + take_below(&in, 6);
    s.settings.viewers_per_room = 1 + take_below(&in, 3);
    s.settings.connections = 1 + take_below(&in, 40);
    s.settings.connections_per_address = 1 + take_below(&in, 12);
    s.settings.accepts_per_address = RATES[take_below(&in, 4)];
    s.settings.accept_burst = 1 + take_below(&in, 100);
    s.settings.logins_per_room = lists & 1 ? 7.5 : 15; // an eighth and a quarter a second
    s.settings.logins_per_address = lists & 2 ? 7.5 : 15;
    if (lists & 4) {
        for (const char *range : ALLOWED_HOSTS)
            s.settings.hosts.push_back(*parse_range(range));
        for (const char *range : ALLOWED_VIEWERS)
            s.settings.viewers.push_back(*parse_range(range));
    }
    if (lists & 8)
        s.settings.allowed_ids = {ROOMS[0], ROOMS[2], ROOMS[3]};
    s.tested = std::make_unique<lobby>(s.settings, s.numbers);

    while (in.left > 0)
        step(s, &in);
    while (!s.peers.empty()) {
        end_peer(s, lists & 16 ? s.peers.front().known->id : s.peers.back().known->id);
        check(s);
    }
    FUZZ_CHECK(s.tested->is_empty() && s.numbers.connections == 0);
    return 0;
}
