// qv_host.exe: the host without the desktop application.
//
//   qv_host       listens on TCP port 7777
//   qv_host -r    serves through the relay
//   qv_host -q    ends the one that runs
//
// The main thread sets up identity and log, says where they are, and then waits for the
// first of two things: the server thread's end, or the stop event. It keeps no console:
// the host reads other programs' consoles, for which it must attach to them, and a process
// has only one at a time.
//
// One qv_host runs per logon session. It owns two named objects until its process ends: a
// piece of memory that holds its process number, whose creation is the claim, and the stop
// event, made after the number is in place. `-q` sets the event and waits for the process
// itself, so that when it returns, port and files are free for the next.
#include "host/host_cli.h"
#include "host/host_server.h"

#include "identity/data_dir.h"
#include "identity/host_identity.h"
#include "identity/server_log.h"
#include "protocol/system_library.h"
#include "protocol/win32.h"

#include <stdio.h>

static const char PID_NAME[] = "Local\\qv_host_pid";
static const char STOP_NAME[] = "Local\\qv_host_stop";

constexpr DWORD SERVER_END_MS = 2000;   // what a server that was told to stop gets
constexpr DWORD PROCESS_END_MS = 10000; // what -q waits; more than the above plus the exit

static int usage()
{
    printf("usage: qv_host       be a host, reached directly on TCP port %d\n"
           "       qv_host -r    be a host, reached through the relay\n"
           "       qv_host -q    end the host that runs\n",
           (int)HOST_PORT);
    return 1;
}

// Makes this process the one that runs. Returns the stop event, or null when another is
// there already. The handles stay open: the process end gives the names back.
static HANDLE claim()
{
    HANDLE memory = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                       sizeof(DWORD), PID_NAME);
    const DWORD error = GetLastError();
    if (memory == nullptr || error == ERROR_ALREADY_EXISTS)
        return nullptr;
    DWORD *pid = (DWORD *)MapViewOfFile(memory, FILE_MAP_WRITE, 0, 0, sizeof(DWORD));
    if (pid == nullptr)
        return nullptr;
    *pid = GetCurrentProcessId();
    UnmapViewOfFile(pid);
    return CreateEventA(nullptr, TRUE, FALSE, STOP_NAME);
}

// The process number of the one that runs; 0 when none does.
static DWORD running_pid()
{
    HANDLE memory = OpenFileMappingA(FILE_MAP_READ, FALSE, PID_NAME);
    if (memory == nullptr)
        return 0;
    DWORD pid = 0;
    const DWORD *view = (const DWORD *)MapViewOfFile(memory, FILE_MAP_READ, 0, 0, sizeof pid);
    if (view != nullptr) {
        pid = *view;
        UnmapViewOfFile(view);
    }
    // At once: a name that is open here would keep the next qv_host from starting.
    CloseHandle(memory);
    return pid;
}

static int quit_failed(DWORD error)
{
    printf("qv_host: %s\n",
           error == ERROR_ACCESS_DENIED ? "may not be ended by this user" : "none runs");
    return 1;
}

static int quit_running()
{
    HANDLE stop = OpenEventA(EVENT_MODIFY_STATE, FALSE, STOP_NAME);
    if (stop == nullptr)
        return quit_failed(GetLastError());
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, running_pid());
    if (process == nullptr) {
        const DWORD error = GetLastError();
        CloseHandle(stop);
        return quit_failed(error);
    }
    SetEvent(stop);
    CloseHandle(stop);
    const DWORD ended = WaitForSingleObject(process, PROCESS_END_MS);
    CloseHandle(process);
    if (ended != WAIT_OBJECT_0) {
        printf("qv_host: was told to end and still runs\n");
        return 1;
    }
    return 0;
}

static void say_where()
{
    char path[SERVER_LOG_PATH_SIZE];
    data_dir_id_path(path);
    printf("ID:       %s (%s)\n", host_get_id(), path);
    data_dir_host_path(path);
    printf("password: in %s\n", path);
    server_log_path(path, sizeof path);
    printf("log:      %s\n", path);
    fflush(stdout); // it appears at once, also in a file or a pipe
}

static DWORD WINAPI server_thread(void *)
{
    return (DWORD)host::host_server_run();
}

static int run(int32_t relay_mode)
{
    HANDLE stop = claim();
    if (stop == nullptr) {
        printf("qv_host: runs already; qv_host -q ends it\n");
        return 1;
    }
    host_identity_init(relay_mode);
    server_log_open();
    say_where();
    FreeConsole();

    HANDLE server = CreateThread(nullptr, 0, server_thread, nullptr, 0, nullptr);
    if (server == nullptr)
        return 1;
    const HANDLE either[] = {server, stop};
    if (WaitForMultipleObjects(2, either, FALSE, INFINITE) == WAIT_OBJECT_0) {
        DWORD status = 1;
        GetExitCodeThread(server, &status);
        return (int)status;
    }
    host::host_stop();
    // A server that waits in accept does not notice; the process end cuts it short.
    WaitForSingleObject(server, SERVER_END_MS);
    return 0;
}

int main(int argc, char **argv)
{
    system_library_restrict();
    switch (host::host_parse_arguments(argc, argv)) {
    case host::HOST_RUN_DIRECT:
        return run(0);
    case host::HOST_RUN_RELAY:
        return run(1);
    case host::HOST_QUIT:
        return quit_running();
    case host::HOST_USAGE:
        break;
    }
    return usage();
}
