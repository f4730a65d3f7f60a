// The counters, served to Prometheus.
#ifndef QV_RELAY_METRICS_H
#define QV_RELAY_METRICS_H

#include "relay/counters.h"
#include "relay/options.h"

#include <memory>

namespace relay
{

class metrics_server; // ends with its owner

// Serves numbers at http://ADDRESS:PORT/metrics on threads of its own. numbers outlives the
// result. Throws std::exception when the address is not to be had; null in builds without
// the library (Windows).
std::shared_ptr<metrics_server> serve_metrics(const endpoint &where, const counters &numbers);

} // namespace relay

#endif
