// An emulated line by its arithmetic alone.
//
// When a packet leaves the queue follows from the packet before it, not from when somebody
// looks: so the rate is exact however late the emulator is woken, and a late one only
// delivers late.
#include "bench/lines/line_queue.h"

#include <algorithm>

line_queue line_queue_make(const line_settings &settings)
{
    line_queue queue = {};
    queue.settings = settings;
    queue.random = settings.seed;
    return queue;
}

// xorshift64*; at most a million less one.
static uint32_t next_of_million(uint64_t *state)
{
    *state ^= *state >> 12;
    *state ^= *state << 25;
    *state ^= *state >> 27;
    return (uint32_t)(((*state * 0x2545F4914F6CDD1Dull) >> 32) * 1000000 >> 32);
}

bool line_queue_put(line_queue *queue, uint64_t now_us, uint32_t bytes, uint64_t *there_us)
{
    const line_settings &settings = queue->settings;
    uint64_t begin = std::max(queue->free_us, now_us);
    uint64_t wait = begin - now_us;
    line_moment moment = {now_us, (uint32_t)wait, bytes, wait > settings.queue_us, false};
    if (!moment.dropped) {
        queue->free_us = begin + bytes * 1000000ull / settings.rate;
        *there_us = queue->free_us + settings.delay_us;
        moment.lost = next_of_million(&queue->random) < settings.loss;
    }
    queue->moments.push_back(moment);
    return !moment.dropped && !moment.lost;
}

line_count line_queue_count(const line_queue &queue, uint64_t begin_us, uint64_t end_us)
{
    line_count count = {};
    for (const line_moment &m : queue.moments) {
        uint64_t left_us = m.at_us + m.wait_us + m.bytes * 1000000ull / queue.settings.rate;
        if (!m.dropped && !m.lost && left_us >= begin_us && left_us < end_us)
            count.carried_bytes += m.bytes;
        if (m.at_us < begin_us || m.at_us >= end_us)
            continue;
        count.packets++;
        count.bytes += m.bytes;
        count.dropped += m.dropped;
        count.lost += m.lost;
    }
    return count;
}

std::vector<uint32_t> line_queue_waits(const line_queue &queue, uint64_t begin_us,
                                       uint64_t end_us)
{
    std::vector<uint32_t> waits;
    for (const line_moment &m : queue.moments)
        if (m.at_us >= begin_us && m.at_us < end_us && !m.dropped)
            waits.push_back(m.wait_us);
    std::sort(waits.begin(), waits.end());
    return waits;
}
