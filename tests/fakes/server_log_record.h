// The server log as a list in memory, in place of the file.
#ifndef QV_TESTS_FAKES_SERVER_LOG_RECORD_H
#define QV_TESTS_FAKES_SERVER_LOG_RECORD_H

#include <string>
#include <vector>

// The lines logged so far, a copy. Any thread.
std::vector<std::string> server_log_lines();

// Forgets them.
void server_log_clear();

#endif
