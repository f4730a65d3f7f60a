// What one peer may take: rates, and back-off after failed log-ins.
//
// Pure: the time is an argument, in seconds of a clock that never goes back.
#ifndef QV_RELAY_LIMITS_H
#define QV_RELAY_LIMITS_H

#include <algorithm>
#include <cstddef>
#include <string>
#include <unordered_map>

namespace relay
{

// Fills at a steady rate up to its size; whoever takes may go into debt and then waits.
class token_bucket
{
  public:
    // A full bucket. rate is tokens a second, above 0.
    token_bucket(double rate, double size, double now)
        : rate_(rate), size_(size), tokens_(size), filled_(now)
    {
    }

    // Takes n tokens if they are there.
    bool try_take(double n, double now)
    {
        fill(now);
        if (tokens_ < n)
            return false;
        tokens_ -= n;
        return true;
    }

    // Takes n tokens; returns the seconds until the debt is paid, 0 without one.
    double take(double n, double now)
    {
        fill(now);
        tokens_ -= n;
        return tokens_ < 0 ? -tokens_ / rate_ : 0;
    }

    bool is_full(double now) const
    {
        return tokens_at(now) >= size_;
    }

  private:
    double tokens_at(double now) const
    {
        return std::min(size_, tokens_ + rate_ * (now - filled_));
    }

    void fill(double now)
    {
        tokens_ = tokens_at(now);
        filled_ = now;
    }

    double rate_, size_, tokens_, filled_;
};

// A bucket for each key that took something lately.
class keyed_buckets
{
  public:
    keyed_buckets(double rate, double size) : rate_(rate), size_(size)
    {
    }

    bool try_take(const std::string &key, double now)
    {
        if (buckets_.size() >= sweep_at_)
            sweep(now);
        return buckets_.try_emplace(key, rate_, size_, now).first->second.try_take(1, now);
    }

    std::size_t size() const
    {
        return buckets_.size();
    }

  private:
    // A full bucket is as good as none. Twice what is left is room until the next time, so
    // that sweeping costs each key a constant.
    void sweep(double now)
    {
        std::erase_if(buckets_, [&](const auto &entry) { return entry.second.is_full(now); });
        sweep_at_ = std::max<std::size_t>(SWEEP_MIN, 2 * buckets_.size());
    }

    static constexpr std::size_t SWEEP_MIN = 1024;
    double rate_, size_;
    std::size_t sweep_at_ = SWEEP_MIN;
    std::unordered_map<std::string, token_bucket> buckets_;
};

// Counts failed log-ins by key (a room, an address). So many a minute are free; each further
// one closes the key for a time that doubles up to BACK_OFF_MAX_S, until a whole minute's
// worth has been earned back.
class login_guard
{
  public:
    static constexpr double BACK_OFF_MIN_S = 5;
    static constexpr double BACK_OFF_MAX_S = 300;

    explicit login_guard(double per_minute) : per_minute_(per_minute)
    {
    }

    // Returns the seconds for which the key is closed from now on, 0 when it is open.
    double failed(const std::string &key, double now)
    {
        if (entries_.size() >= sweep_at_)
            sweep(now);
        entry &e = entries_.try_emplace(key, per_minute_, now).first->second;
        if (e.bucket.is_full(now))
            e.back_off = BACK_OFF_MIN_S;
        if (e.bucket.try_take(1, now))
            return 0;
        const double closed = e.back_off;
        e.closed_until = now + closed;
        e.back_off = std::min(BACK_OFF_MAX_S, 2 * e.back_off);
        return closed;
    }

    bool is_closed(const std::string &key, double now) const
    {
        const auto it = entries_.find(key);
        return it != entries_.end() && now < it->second.closed_until;
    }

    std::size_t size() const
    {
        return entries_.size();
    }

  private:
    struct entry {
        entry(double per_minute, double now) : bucket(per_minute / 60, per_minute, now)
        {
        }
        token_bucket bucket;
        double back_off = BACK_OFF_MIN_S;
        double closed_until = 0;
    };

    void sweep(double now)
    {
        std::erase_if(entries_, [&](const auto &item) {
            return item.second.bucket.is_full(now) && now >= item.second.closed_until;
        });
        sweep_at_ = std::max<std::size_t>(SWEEP_MIN, 2 * entries_.size());
    }

    static constexpr std::size_t SWEEP_MIN = 1024;
    double per_minute_;
    std::size_t sweep_at_ = SWEEP_MIN;
    std::unordered_map<std::string, entry> entries_;
};

} // namespace relay

#endif
