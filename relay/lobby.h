// Everything that is decided about a connection until it has met its partner, and after how
// long it has had its time: limits, hello, lists, back-off, room.
//
// Pure state: nothing is read, written or waited for, and the time is an argument, in seconds
// of a clock that never goes back. server.h does with sockets and timers what is decided here.
#ifndef QV_RELAY_LOBBY_H
#define QV_RELAY_LOBBY_H

#include "relay/counters.h"
#include "relay/hello.h"
#include "relay/limits.h"
#include "relay/options.h"
#include "relay/room_table.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>

namespace relay
{

// Open connections by address.
using address_counts = std::unordered_map<std::string, std::uint32_t>;

// Counts one open connection of an address for as long as it lives.
class address_slot
{
  public:
    address_slot(std::shared_ptr<address_counts> counts, std::string key)
        : counts_(std::move(counts)), key_(std::move(key))
    {
        ++(*counts_)[key_];
    }
    ~address_slot()
    {
        const auto it = counts_->find(key_);
        if (--it->second == 0)
            counts_->erase(it);
    }
    address_slot(const address_slot &) = delete;
    address_slot &operator=(const address_slot &) = delete;

    std::uint32_t now() const
    {
        return counts_->at(key_);
    }

  private:
    std::shared_ptr<address_counts> counts_;
    std::string key_;
};

// Counts one in a gauge for as long as it lives.
class gauge_slot
{
  public:
    explicit gauge_slot(count &gauge) : gauge_(gauge)
    {
        gauge_++;
    }
    ~gauge_slot()
    {
        gauge_--;
    }
    gauge_slot(const gauge_slot &) = delete;
    gauge_slot &operator=(const gauge_slot &) = delete;

  private:
    count &gauge_;
};

// What the lobby knows of one connection. The lobby fills it in; its end ends its counting.
struct guest {
    explicit guest(connection_id n) : id(n)
    {
    }

    const connection_id id;
    asio::ip::address address; // the client's, also behind a proxy; the caller sets it
    bool has_hello = false, is_host = false;
    std::string room, name;
    // When its patience ends: the relay's with its hello, or its own with its host. Absent:
    // never.
    std::optional<double> deadline;
    std::optional<gauge_slot> open;
    std::optional<address_slot> of_address;
};

// How far the two sides of a pair have come, in bytes that the other side was given.
struct pair_progress {
    // Bytes of the handshake in each direction. With a wrong password the viewer has sent them
    // all, key and confirmation, and the host its key alone.
    static constexpr std::uint64_t HANDSHAKE_BYTES = 48;
    static constexpr std::uint64_t HOST_KEY_BYTES = 32;

    std::uint64_t to_host = 0, to_viewer = 0;

    bool is_past_handshake() const
    {
        return to_host >= HANDSHAKE_BYTES && to_viewer >= HANDSHAKE_BYTES;
    }
    // Whether a pair that ends here went as it does with a wrong password. More bytes behind a
    // wrong confirmation change nothing.
    bool is_failed_login() const
    {
        return to_host >= HANDSHAKE_BYTES && to_viewer == HOST_KEY_BYTES;
    }
};

class lobby
{
  public:
    // settings and numbers outlive the lobby and its guests.
    lobby(const options &settings, counters &numbers);

    // Somebody connected; the time for the hello begins.
    refusal opens(guest &g, double now);

    // It is known from where.
    refusal arrives(guest &g, double now);

    // Its first bytes. *detail is why they are no hello.
    refusal greets(guest &g, std::span<const std::uint8_t, RELAY_HELLO_BYTES> bytes,
                   const char **detail);

    // Lets it into the room that it named, if it may.
    outcome enters(guest &g, double now);

    // Why a guest is refused whose deadline has come.
    static refusal times_out(const guest &g)
    {
        return g.has_hello ? refusal::no_host_came : refusal::hello_late;
    }

    // A guest that entered has ended, whatever it was doing.
    outcome ends(connection_id id);

    // A viewer's pair ended like a wrong password. For how many seconds from now its room and
    // its address are closed, 0 for not.
    struct closure {
        double room, address;
    };
    closure fails_login(const guest &viewer, double now);

    // Nobody enters any more.
    void drain()
    {
        is_draining_ = true;
    }

    // Whether nobody is here and nothing is counted, and the counts fit. For tests.
    bool is_empty() const
    {
        return rooms_.rooms() == 0 && per_address_->empty() && is_consistent();
    }
    bool is_consistent() const;

  private:
    refusal admits(const guest &g, double now) const;
    void publish();

    const options &settings_;
    counters &numbers_;
    room_table rooms_;
    // Shared with every slot, which may end after the lobby.
    const std::shared_ptr<address_counts> per_address_ = std::make_shared<address_counts>();
    keyed_buckets accepts_;
    login_guard room_logins_, address_logins_;
    bool is_draining_ = false;
};

} // namespace relay

#endif
