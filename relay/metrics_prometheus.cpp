#include "relay/metrics.h"

#include <prometheus/client_metric.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>
#include <prometheus/metric_type.h>

namespace relay
{

namespace
{

// Reads the counters when it is asked, so that counting costs the relay no more than an add.
class collector : public prometheus::Collectable
{
  public:
    explicit collector(const counters &numbers) : numbers_(numbers)
    {
    }

    std::vector<prometheus::MetricFamily> Collect() const override
    {
        using prometheus::MetricType;
        std::vector<prometheus::MetricFamily> all;
        const auto family = [&](MetricType type, const char *name, const char *help) {
            all.push_back({.name = name, .help = help, .type = type, .metric = {}});
        };
        const auto value = [&](const count &number, const char *label = nullptr,
                               const char *is = nullptr) {
            prometheus::ClientMetric m;
            if (label != nullptr)
                m.label = {{label, is}};
            const double n = (double)number.load();
            if (all.back().type == MetricType::Gauge)
                m.gauge.value = n;
            else
                m.counter.value = n;
            all.back().metric.push_back(std::move(m));
        };

        family(MetricType::Gauge, "qv_relay_connections", "Open connections");
        value(numbers_.connections);
        family(MetricType::Gauge, "qv_relay_rooms", "Rooms in use");
        value(numbers_.rooms);
        family(MetricType::Gauge, "qv_relay_waiting", "Connections that wait for a partner");
        value(numbers_.waiting_hosts, "role", "host");
        value(numbers_.waiting_viewers, "role", "viewer");
        family(MetricType::Gauge, "qv_relay_pairs", "Pairs at the moment");
        value(numbers_.pairs);
        family(MetricType::Counter, "qv_relay_accepted_total", "Connections accepted");
        value(numbers_.accepted);
        family(MetricType::Counter, "qv_relay_hellos_total", "Hellos that were let in");
        value(numbers_.hosts, "role", "host");
        value(numbers_.viewers, "role", "viewer");
        family(MetricType::Counter, "qv_relay_paired_total", "Pairs made");
        value(numbers_.paired);
        family(MetricType::Counter, "qv_relay_bytes_total", "Bytes passed on");
        value(numbers_.bytes_to_host, "to", "host");
        value(numbers_.bytes_to_viewer, "to", "viewer");
        family(MetricType::Counter, "qv_relay_failed_logins_total", "Wrong passwords");
        value(numbers_.failed_logins);
        family(MetricType::Counter, "qv_relay_stalled_handshakes_total",
               "Pairs closed because their handshake took too long");
        value(numbers_.stalled_handshakes);
        family(MetricType::Counter, "qv_relay_replaced_hosts_total",
               "Connections of hosts that came again");
        value(numbers_.replaced_hosts);
        family(MetricType::Counter, "qv_relay_refused_total", "Connections refused");
        for (std::size_t i = 1; i < (std::size_t)refusal::count; i++)
            value(numbers_.refused[i], "reason", REFUSALS[i].label);
        return all;
    }

  private:
    const counters &numbers_;
};

} // namespace

class metrics_server
{
  public:
    metrics_server(const std::string &where, const counters &numbers)
        : collector_(std::make_shared<collector>(numbers)), exposer_(where, 1)
    {
        exposer_.RegisterCollectable(collector_);
    }

  private:
    std::shared_ptr<collector> collector_;
    prometheus::Exposer exposer_;
};

std::shared_ptr<metrics_server> serve_metrics(const endpoint &where, const counters &numbers)
{
    const std::string host = where.address.to_string();
    return std::make_shared<metrics_server>((where.address.is_v6() ? "[" + host + "]" : host) +
                                                ":" + std::to_string(where.port),
                                            numbers);
}

} // namespace relay
