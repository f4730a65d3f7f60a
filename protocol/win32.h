// The Windows headers, in the order that they need. Only *_win32.cpp files include this.
#ifndef QV_PROTOCOL_WIN32_H
#define QV_PROTOCOL_WIN32_H

#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0A00
#endif
#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX // the C++ library may have defined it
#define NOMINMAX
#endif

// The obsolete input function of this name gives way to the message (messages.h).
#define mouse_event win32_mouse_event
#include <winsock2.h>
#include <ws2tcpip.h>
#include <mswsock.h>
#include <windows.h>
#undef mouse_event

#endif
