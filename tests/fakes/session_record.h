// What was asked of the viewer session that stands in for the real one.
#ifndef QV_TESTS_FAKES_SESSION_RECORD_H
#define QV_TESTS_FAKES_SESSION_RECORD_H

#include <atomic>
#include <stdint.h>

struct session_record {
    int runs;   // calls of viewer_session_run
    int result; // what viewer_session_run returns

    // The last run's arguments.
    char host[256], port[256], host_id[256], password[256];
    bool via_relay;
    char *error_text;
    int32_t error_size;
};

extern session_record session_recorded;
extern std::atomic<int> session_aborts; // calls of viewer_session_abort

#endif
