// One connection in memory, for programs of one thread: what the peer sends is made when the
// product wants to receive it, and what the product sends is kept.
#ifndef QV_TESTS_FAKES_NET_MEMORY_H
#define QV_TESTS_FAKES_NET_MEMORY_H

#include "protocol/net.h"

#include <functional>
#include <stdint.h>
#include <vector>

constexpr net_socket NET_MEMORY_SOCKET = 7;

struct net_memory_record {
    std::vector<uint8_t> incoming; // all that the peer has sent so far
    size_t taken;                  // of them received by the product
    std::vector<uint8_t> sent;     // all that the product has sent

    // Called whenever a receive finds too few bytes; appends to incoming. When it appends
    // nothing the peer has closed the connection.
    std::function<void()> refill;

    uint64_t send_limit;  // bytes that can still be sent before sending fails
    uint32_t connections; // that net_accept and net_connect still give; then they fail
    bool aborted;
    uint32_t closed; // calls of net_close on the connection
};
extern net_memory_record net_memory;

// A connection with an empty past; every send succeeds, one connection can be had.
void net_memory_reset();

#endif
