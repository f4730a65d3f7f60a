// A viewer session that only notes what it was asked for.
#include "tests/fakes/session_record.h"

#include "protocol/bytes.h"
#include "viewer/viewer_session.h"

session_record session_recorded;
std::atomic<int> session_aborts;

namespace viewer
{

void (*on_connected)(const char *host_name, const char *host_id);

static void note(char (&text)[256], const char *given)
{
    copy_text(text, sizeof text, given ? given : "(none)");
}

int viewer_session_run(const char *host, const char *port, bool via_relay, const char *host_id,
                       const char *password, char *error_text, int32_t error_size)
{
    session_recorded.runs++;
    note(session_recorded.host, host);
    note(session_recorded.port, port);
    note(session_recorded.host_id, host_id);
    note(session_recorded.password, password);
    session_recorded.via_relay = via_relay;
    session_recorded.error_text = error_text;
    session_recorded.error_size = error_size;
    return session_recorded.result;
}

void viewer_session_abort()
{
    session_aborts++;
}

} // namespace viewer
