// The two functions of mswsock.dll that Asio calls by name.
//
// That library is none of those that Windows maps itself: a program that imports it takes one
// of the name that lies beside it. So nothing here imports it. ws2_32 gives out the same
// functions to whoever asks by a socket, from where the system's own catalogue says.
#include "protocol/win32.h"

#include <mswsock.h>

// Only the relay's one thread accepts. Asio asks for the addresses of what it accepted.
static LPFN_ACCEPTEX accept_ex;
static LPFN_GETACCEPTEXSOCKADDRS addresses_of;

static bool look_up(SOCKET sock, GUID name, void *function, DWORD size)
{
    DWORD got = 0;
    return WSAIoctl(sock, SIO_GET_EXTENSION_FUNCTION_POINTER, &name, sizeof name, function,
                    size, &got, nullptr, nullptr) == 0;
}

BOOL WINAPI AcceptEx(SOCKET listener, SOCKET accepted, void *buffer, DWORD data_bytes,
                     DWORD local_bytes, DWORD remote_bytes, DWORD *received,
                     OVERLAPPED *overlapped)
{
    if (!accept_ex &&
        (!look_up(listener, WSAID_GETACCEPTEXSOCKADDRS, &addresses_of, sizeof addresses_of) ||
         !look_up(listener, WSAID_ACCEPTEX, &accept_ex, sizeof accept_ex)))
        return FALSE; // WSAIoctl has said why
    return accept_ex(listener, accepted, buffer, data_bytes, local_bytes, remote_bytes,
                     received, overlapped);
}

void WINAPI GetAcceptExSockaddrs(void *buffer, DWORD data_bytes, DWORD local_bytes,
                                 DWORD remote_bytes, sockaddr **local, int *local_size,
                                 sockaddr **remote, int *remote_size)
{
    addresses_of(buffer, data_bytes, local_bytes, remote_bytes, local, local_size, remote,
                 remote_size);
}
