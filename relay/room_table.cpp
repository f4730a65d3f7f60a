#include "relay/room_table.h"

#include <algorithm>

namespace relay
{

void room_table::set_owner(room &r, host h)
{
    r.owner = std::move(h);
    r.owner.in_session = false;
    waiting_hosts_++;
}

void room_table::clear_owner(room &r)
{
    if (!r.owner.in_session)
        waiting_hosts_--;
    r.owner = {};
}

void room_table::match(room &r, outcome &o)
{
    if (r.owner.id == 0 || r.owner.in_session || r.viewers.empty())
        return;
    const connection_id viewer = r.viewers.front();
    r.viewers.pop_front();
    waiting_viewers_--;
    where_.erase(viewer);
    r.owner.in_session = true;
    waiting_hosts_--;
    o.pair = {r.owner.id, viewer};
}

void room_table::drop_if_empty(room_map::iterator it)
{
    const room &r = it->second;
    if (r.owner.id == 0 && r.next.id == 0 && r.viewers.empty())
        rooms_.erase(it);
}

static outcome refused(refusal why)
{
    outcome o;
    o.refused = why;
    return o;
}

// Null when there are too many.
room_table::room *room_table::find_or_make(const std::string &name)
{
    const auto it = rooms_.find(name);
    if (it != rooms_.end())
        return &it->second;
    if (rooms_.size() >= limits_.rooms)
        return nullptr;
    return &rooms_.try_emplace(name).first->second;
}

outcome room_table::host_arrives(connection_id id, const std::string &room_name,
                                 const std::string &name, const asio::ip::address &address)
{
    outcome o;
    room *const found = find_or_make(room_name);
    if (found == nullptr)
        return refused(refusal::rooms);
    room &r = *found;
    host h = {.id = id, .name = name, .address = address};

    if (r.owner.id != 0 && r.owner.name != name)
        return refused(refusal::room_taken);
    if (r.owner.id != 0 && r.owner.address != address) {
        if (r.next.id != 0 && r.next.address != address)
            return refused(refusal::line_taken);
        if (r.next.id != 0) {
            o.close.push_back(r.next.id);
            where_.erase(r.next.id);
        }
        r.next = std::move(h);
        where_[id] = room_name;
        o.in_line = true;
        return o;
    }
    if (r.owner.id != 0) {
        o.close.push_back(r.owner.id);
        where_.erase(r.owner.id);
        clear_owner(r);
    }
    set_owner(r, std::move(h));
    where_[id] = room_name;
    match(r, o);
    return o;
}

outcome room_table::viewer_arrives(connection_id id, const std::string &room_name)
{
    outcome o;
    room *const found = find_or_make(room_name);
    if (found == nullptr)
        return refused(refusal::rooms);
    room &r = *found;
    if (r.viewers.size() >= limits_.viewers_per_room)
        return refused(refusal::viewers_in_room);
    r.viewers.push_back(id);
    waiting_viewers_++;
    where_[id] = room_name;
    match(r, o);
    return o;
}

outcome room_table::ends(connection_id id)
{
    outcome o;
    const auto place = where_.find(id);
    if (place == where_.end())
        return o;
    const auto it = rooms_.find(place->second);
    where_.erase(place);
    room &r = it->second;
    if (r.owner.id == id) {
        clear_owner(r);
        if (r.next.id != 0) {
            o.promoted = r.next.id;
            set_owner(r, std::move(r.next));
            r.next = {};
            match(r, o);
        }
    } else if (r.next.id == id) {
        r.next = {};
    } else {
        r.viewers.erase(std::find(r.viewers.begin(), r.viewers.end(), id));
        waiting_viewers_--;
    }
    drop_if_empty(it);
    return o;
}

bool room_table::is_consistent() const
{
    std::size_t hosts = 0, viewers = 0, places = 0;
    for (const auto &[name, r] : rooms_) {
        const auto is_here = [&, &room_name = name](connection_id id) {
            const auto place = where_.find(id);
            return place != where_.end() && place->second == room_name;
        };
        if (r.owner.id == 0 && (r.next.id != 0 || r.viewers.empty()))
            return false; // nobody waits in line behind nobody
        if (r.owner.id != 0 && !r.owner.in_session && !r.viewers.empty())
            return false; // two that should have met
        for (const host *h : {&r.owner, &r.next}) {
            if (h->id == 0)
                continue;
            places++;
            if (!is_here(h->id))
                return false;
        }
        for (const connection_id id : r.viewers)
            if (!is_here(id))
                return false;
        places += r.viewers.size();
        viewers += r.viewers.size();
        hosts += r.owner.id != 0 && !r.owner.in_session;
    }
    return hosts == waiting_hosts_ && viewers == waiting_viewers_ && places == where_.size();
}

} // namespace relay
