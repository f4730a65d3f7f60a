#include "tests/fakes/flush_record.h"

#include "host/host_channel.h"
#include "host/out_buffer.h"

std::vector<std::vector<uint8_t>> flush_records;
bool flush_fails;
std::function<void()> flush_hook;

namespace host
{

secure_channel host_channel;

bool channel_flush()
{
    if (flush_hook)
        flush_hook();
    bool sent = out_intact() && !flush_fails;
    if (sent)
        flush_records.emplace_back(out_bytes(), out_bytes() + out_used());
    out_reset();
    return sent;
}

} // namespace host
