// The emulated line's edges: namespaces, devices and time.
//
// The packets of IPv4 are what crosses; others (a new device says something in IPv6) are not
// the line's business and end here. A packet counts with its IP header and all behind it.
#include "bench/lines/line_tun.h"

#include <arpa/inet.h>
#include <deque>
#include <errno.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

const char *const line_address[LINE_SIDES] = {"10.77.0.1", "10.77.0.2"};

static constexpr int MTU = 1500;
static constexpr int DEVICE_PACKETS = 4096; // that wait until the emulator comes by
static constexpr uint64_t STOP_US = 20000;
static constexpr const char *DEVICE = "line";

static uint64_t now_us()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000 + (uint64_t)now.tv_nsec / 1000;
}

static std::string failed(const char *what)
{
    return std::string(what) + ": " + strerror(errno);
}

// ---------------------------------------------------------------------------------------
// Namespaces and devices

static bool write_text(const char *path, const std::string &text)
{
    int file = open(path, O_WRONLY | O_CLOEXEC);
    bool written = file >= 0 && write(file, text.data(), text.size()) == (ssize_t)text.size();
    if (file >= 0)
        close(file);
    return written;
}

static int own_net()
{
    return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}

// A device in the calling thread's network, up, with this address; -1 on failure.
static int open_device(const char *address, std::string *reason)
{
    int tun = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (tun < 0) {
        *reason = failed("/dev/net/tun");
        return -1;
    }
    ifreq request = {};
    strcpy(request.ifr_name, DEVICE);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    bool made = ioctl(tun, TUNSETIFF, &request) == 0;
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);

    sockaddr_in in = {};
    in.sin_family = AF_INET;
    auto set_address = [&](unsigned long what, const char *text) {
        inet_pton(AF_INET, text, &in.sin_addr);
        memcpy(&request.ifr_addr, &in, sizeof in);
        return ioctl(sock, what, &request) == 0;
    };
    auto set_number = [&](unsigned long what, int number) {
        request.ifr_mtu = number; // and ifr_qlen, a member of the same union
        return ioctl(sock, what, &request) == 0;
    };
    made = made && set_address(SIOCSIFADDR, address) &&
           set_address(SIOCSIFNETMASK, "255.255.255.0") && set_number(SIOCSIFMTU, MTU);
    // This call wants root of the whole machine, and netlink, which is what ip speaks, does
    // not.
    if (made && !set_number(SIOCSIFTXQLEN, DEVICE_PACKETS)) {
        std::string command = std::string("ip link set dev ") + DEVICE + " txqueuelen " +
                              std::to_string(DEVICE_PACKETS);
        made = system(command.c_str()) == 0;
    }
    if (made) {
        request.ifr_flags = IFF_UP | IFF_RUNNING;
        made = ioctl(sock, SIOCSIFFLAGS, &request) == 0;
    }
    if (!made) {
        *reason = failed("TUN device");
        close(tun);
        tun = -1;
    }
    if (sock >= 0)
        close(sock);
    return tun;
}

bool line_allowed(std::string *reason)
{
    static bool allowed;
    if (allowed)
        return true;
    int net = own_net();
    if (unshare(CLONE_NEWNET) == 0) {
        // Refused to root of a user namespace that is younger than the network: the new one,
        // which is empty, does as well.
        (void)setns(net, CLONE_NEWNET);
        allowed = true;
    } else {
        // Root in a user namespace of our own has all that it takes.
        std::string user = "0 " + std::to_string(geteuid()) + " 1";
        std::string group = "0 " + std::to_string(getegid()) + " 1";
        allowed = unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 &&
                  write_text("/proc/self/setgroups", "deny") &&
                  write_text("/proc/self/uid_map", user) &&
                  write_text("/proc/self/gid_map", group);
    }
    if (!allowed)
        *reason = failed("network namespaces");
    if (net >= 0)
        close(net);
    return allowed;
}

bool line_open(line_tun *line, const line_settings &to_viewer, const line_settings &to_host,
               std::string *reason)
{
    for (line_side side : {LINE_HOST, LINE_VIEWER})
        line->net[side] = line->tun[side] = -1;
    line->from[LINE_HOST] = line_queue_make(to_viewer);
    line->from[LINE_VIEWER] = line_queue_make(to_host);
    line->stop = false;
    if (!line_allowed(reason))
        return false;

    int before = own_net();
    bool made = before >= 0;
    for (line_side side : {LINE_HOST, LINE_VIEWER}) {
        if (made && unshare(CLONE_NEWNET) != 0) {
            *reason = failed("network namespace");
            made = false;
        }
        if (made) {
            line->net[side] = own_net();
            line->tun[side] = open_device(line_address[side], reason);
            made = line->net[side] >= 0 && line->tun[side] >= 0;
        }
    }
    if (before >= 0) {
        if (setns(before, CLONE_NEWNET) != 0) {
            *reason = failed("way back from a network namespace");
            made = false;
        }
        close(before);
    }
    if (!made)
        line_close(line);
    return made;
}

void line_close(line_tun *line)
{
    for (line_side side : {LINE_HOST, LINE_VIEWER}) {
        for (int *descriptor : {&line->net[side], &line->tun[side]}) {
            if (*descriptor >= 0)
                close(*descriptor);
            *descriptor = -1;
        }
    }
}

bool line_enter(const line_tun &line, line_side side)
{
    return setns(line.net[side], CLONE_NEWNET) == 0;
}

uint64_t line_device_drops(const line_tun &line, line_side side)
{
    int before = own_net();
    uint64_t drops = 0;
    if (before >= 0 && line_enter(line, side)) {
        FILE *file = fopen("/proc/thread-self/net/dev", "r");
        char text[512];
        unsigned long long n[12];
        // Of the sender's columns, behind eight of the receiver's, the fourth.
        while (file && fgets(text, sizeof text, file))
            if (sscanf(text,
                       " line: %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu",
                       &n[0], &n[1], &n[2], &n[3], &n[4], &n[5], &n[6], &n[7], &n[8], &n[9],
                       &n[10], &n[11]) == 12)
                drops = n[11];
        if (file)
            fclose(file);
        (void)setns(before, CLONE_NEWNET);
    }
    if (before >= 0)
        close(before);
    return drops;
}

// ---------------------------------------------------------------------------------------
// Carrying

struct packet {
    uint64_t there_us;
    uint32_t bytes;
    uint8_t data[MTU];
};

// Takes what a device has. False when it failed.
static bool take_packets(int tun, line_queue *queue, std::deque<packet> *under_way)
{
    for (;;) {
        packet p;
        ssize_t got = read(tun, p.data, sizeof p.data);
        if (got < 0)
            return errno == EAGAIN || errno == EINTR;
        if (got == 0 || p.data[0] >> 4 != 4)
            continue;
        p.bytes = (uint32_t)got;
        if (line_queue_put(queue, now_us(), p.bytes, &p.there_us))
            under_way->push_back(p);
    }
}

bool line_run(line_tun *line)
{
    (void)prctl(PR_SET_TIMERSLACK, 1);
    std::deque<packet> under_way[LINE_SIDES]; // by the side that they come from
    while (!line->stop) {
        uint64_t now = now_us();
        uint64_t next = now + STOP_US;
        for (line_side side : {LINE_HOST, LINE_VIEWER}) {
            std::deque<packet> &packets = under_way[side];
            int to = line->tun[side == LINE_HOST ? LINE_VIEWER : LINE_HOST];
            while (!packets.empty() && packets.front().there_us <= now) {
                if (write(to, packets.front().data, packets.front().bytes) < 0 &&
                    errno != EAGAIN && errno != EINTR)
                    return false;
                packets.pop_front();
            }
            if (!packets.empty() && packets.front().there_us < next)
                next = packets.front().there_us;
        }
        pollfd ready[LINE_SIDES] = {{line->tun[LINE_HOST], POLLIN, 0},
                                    {line->tun[LINE_VIEWER], POLLIN, 0}};
        timespec left = {.tv_sec = 0, .tv_nsec = (long)(next - now) * 1000};
        if (ppoll(ready, LINE_SIDES, &left, nullptr) < 0 && errno != EINTR)
            return false;
        for (line_side side : {LINE_HOST, LINE_VIEWER})
            if (ready[side].revents != 0 &&
                !take_packets(line->tun[side], &line->from[side], &under_way[side]))
                return false;
    }
    return true;
}
