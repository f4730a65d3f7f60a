// TCP that paces itself as the product's systems do, by CUBIC: this machine's choice may be
// one that measures the line itself, and queues less than any host of the product's would.
//
// Both sides call net_set_nodelay for each connection before a byte crosses it, and the linker
// sends these calls here.
#include "bench/lines/play.h"

#include "protocol/net.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

extern "C" {
void __real__Z15net_set_nodelaym(net_socket sock);
void __wrap__Z15net_set_nodelaym(net_socket sock);
}

void __wrap__Z15net_set_nodelaym(net_socket sock)
{
    __real__Z15net_set_nodelaym(sock);
    static const char name[] = "cubic";
    (void)setsockopt((int)sock, IPPROTO_TCP, TCP_CONGESTION, name, sizeof name - 1);
}
