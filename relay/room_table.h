// Who waits for whom: the rooms, and what happens when somebody comes or goes.
//
// Pure state: it knows connections by number and does no input or output. A room exists while
// it has an owner (a host that waits, or that is in a session), a host next in line, or
// viewers that wait.
//
// A host that comes to a room with an owner
//   of the same name and address   takes its place: the old connection is a stale one
//   of the same name, elsewhere    waits in line, one a room, and becomes the owner when the
//                                  owner's connection ends; so nobody can push a live host
//                                  aside
//   of another name                is refused
#ifndef QV_RELAY_ROOM_TABLE_H
#define QV_RELAY_ROOM_TABLE_H

#include "relay/counters.h"
#include "relay/hello.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace relay
{

using connection_id = std::uint64_t; // never 0, never used twice

struct pairing {
    connection_id host, viewer;
};

// What an arrival or an end leads to. The caller closes, then pairs.
struct outcome {
    refusal refused = refusal::none;  // why the arrival is not let in
    bool in_line = false;             // a host that waits for the owner's end
    std::vector<connection_id> close; // already out of the table
    std::optional<pairing> pair;
    connection_id promoted = 0; // the host in line that became the owner
};

struct room_limits {
    std::size_t rooms = 1000;
    std::size_t viewers_per_room = 8; // that wait
};

class room_table
{
  public:
    explicit room_table(room_limits limits) : limits_(limits)
    {
    }

    outcome host_arrives(connection_id id, const std::string &room, const std::string &name,
                         const asio::ip::address &address);
    outcome viewer_arrives(connection_id id, const std::string &room);

    // A connection of either role has ended, whatever it was doing. Harmless for one that is
    // not in the table. Its partner is not touched: a pair's two ends come one by one.
    outcome ends(connection_id id);

    std::size_t rooms() const
    {
        return rooms_.size();
    }
    std::size_t waiting_hosts() const
    {
        return waiting_hosts_;
    }
    std::size_t waiting_viewers() const
    {
        return waiting_viewers_;
    }

    // Whether the counts above and the links between the two maps are right. For tests.
    bool is_consistent() const;

  private:
    struct host {
        connection_id id = 0; // 0: nobody
        std::string name;
        asio::ip::address address;
        bool in_session = false;
    };
    struct room {
        host owner, next;
        std::deque<connection_id> viewers;
    };
    using room_map = std::unordered_map<std::string, room>;

    room *find_or_make(const std::string &name);
    // Brings the first waiting viewer and a free owner together.
    void match(room &r, outcome &o);
    void set_owner(room &r, host h);
    void clear_owner(room &r);
    void drop_if_empty(room_map::iterator it);

    room_limits limits_;
    room_map rooms_;
    std::unordered_map<connection_id, std::string> where_; // of hosts, and viewers that wait
    std::size_t waiting_hosts_ = 0, waiting_viewers_ = 0;
};

} // namespace relay

#endif
