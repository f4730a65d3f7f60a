#include "relay/lobby.h"

namespace relay
{

lobby::lobby(const options &settings, counters &numbers)
    : settings_(settings), numbers_(numbers),
      rooms_({.rooms = settings.rooms, .viewers_per_room = settings.viewers_per_room}),
      accepts_(settings.accepts_per_address, settings.accept_burst),
      room_logins_(settings.logins_per_room), address_logins_(settings.logins_per_address)
{
}

refusal lobby::opens(guest &g, double now)
{
    g.open.emplace(numbers_.connections);
    g.deadline = now + settings_.hello_seconds;
    return numbers_.connections > settings_.connections ? refusal::connections : refusal::none;
}

refusal lobby::arrives(guest &g, double now)
{
    const std::string key = limit_key(g.address);
    if (!accepts_.try_take(key, now))
        return refusal::accept_rate;
    g.of_address.emplace(per_address_, key);
    if (g.of_address->now() > settings_.connections_per_address)
        return refusal::connections_of_address;
    return refusal::none;
}

refusal lobby::greets(guest &g, std::span<const std::uint8_t, RELAY_HELLO_BYTES> bytes,
                      const char **detail)
{
    const auto said = parse_hello(bytes, detail);
    if (!said)
        return refusal::bad_hello;
    g.has_hello = true;
    g.deadline.reset();
    g.is_host = said->is_host;
    g.room = said->room;
    g.name = said->name;
    return refusal::none;
}

// What the hello decides, before anybody else is looked at.
refusal lobby::admits(const guest &g, double now) const
{
    const auto &allowed = g.is_host ? settings_.hosts : settings_.viewers;
    if (!allowed.empty() && !contains(allowed, g.address))
        return refusal::address_not_allowed;
    if (settings_.allowed_ids && !settings_.allowed_ids->contains(g.room))
        return refusal::id_not_allowed;
    if (!g.is_host && (room_logins_.is_closed(g.room, now) ||
                       address_logins_.is_closed(limit_key(g.address), now)))
        return refusal::back_off;
    return is_draining_ ? refusal::draining : refusal::none;
}

outcome lobby::enters(guest &g, double now)
{
    outcome o;
    o.refused = admits(g, now);
    if (o.refused != refusal::none)
        return o;
    o = g.is_host ? rooms_.host_arrives(g.id, g.room, g.name, g.address)
                  : rooms_.viewer_arrives(g.id, g.room);
    if (o.refused != refusal::none)
        return o;
    (g.is_host ? numbers_.hosts : numbers_.viewers)++;
    if (!g.is_host && !o.pair)
        g.deadline = now + settings_.viewer_wait_seconds;
    publish();
    return o;
}

outcome lobby::ends(connection_id id)
{
    outcome o = rooms_.ends(id);
    publish();
    return o;
}

lobby::closure lobby::fails_login(const guest &viewer, double now)
{
    numbers_.failed_logins++;
    return {.room = room_logins_.failed(viewer.room, now),
            .address = address_logins_.failed(limit_key(viewer.address), now)};
}

void lobby::publish()
{
    numbers_.rooms = rooms_.rooms();
    numbers_.waiting_hosts = rooms_.waiting_hosts();
    numbers_.waiting_viewers = rooms_.waiting_viewers();
}

bool lobby::is_consistent() const
{
    return rooms_.is_consistent() && numbers_.rooms == rooms_.rooms() &&
           numbers_.waiting_hosts == rooms_.waiting_hosts() &&
           numbers_.waiting_viewers == rooms_.waiting_viewers();
}

} // namespace relay
