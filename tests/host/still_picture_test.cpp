// What a still picture costs the host beside the capture and the comparison: nothing. No
// allocation, and no call of the system but for the time; the pointer is asked through a seam.
//
// The calls are counted by the kernel's own filter, in a child process: every one that is not
// on its list is refused and noted.
//
// Native only
// Wraps: malloc calloc realloc free _ZnwmRKSt9nothrow_t _ZnamRKSt9nothrow_t
// Fakes: capture_script cursor_script flush_record input_record server_log_record
// Fakes: console_script host_switches window_list_script
#include "host/frame_pipeline.h"
#include "host/host_server.h"
#include "host/host_session.h"
#include "host/screen.h"
#include "host/server_wake.h"
#include "protocol/clock.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/cursor_script.h"
#include "tests/fakes/flush_record.h"
#include "tests/fakes/server_log_record.h"
#include "tests/test.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <new>
#include <signal.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

using namespace host;

std::atomic<uint32_t> host::host_stop_requested;

void host::server_pause(uint64_t)
{
    FAIL("a still picture waits in its capture only");
}

void host::server_wake()
{
}

// What was counted; shared with the child.
struct counts {
    uint32_t allocations, frees, system_calls;
    int32_t first_call; // number of the first system call, for the message
    bool finished, frames_sent;
};
static counts *counted;

// ---------------------------------------------------------------------------------------
// Counting

static bool counting; // allocations

extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    if (counting)
        counted->allocations++;
    return __real_malloc(size);
}
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    if (counting)
        counted->allocations++;
    return __real_calloc(count, size);
}
void *__real_realloc(void *old, size_t size);
void *__wrap_realloc(void *old, size_t size)
{
    if (counting)
        counted->allocations++;
    return __real_realloc(old, size);
}
void __real_free(void *memory);
void __wrap_free(void *memory)
{
    if (counting)
        counted->frees++;
    __real_free(memory);
}
void *__real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag)
{
    if (counting)
        counted->allocations++;
    return __real__ZnwmRKSt9nothrow_t(size, tag);
}
void *__real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag)
{
    if (counting)
        counted->allocations++;
    return __real__ZnamRKSt9nothrow_t(size, tag);
}
}

// A call that the filter refused. It returns "no such call".
static void on_refused(int, siginfo_t *info, void *context)
{
    if (counted->system_calls++ == 0)
        counted->first_call = info->si_syscall;
    ((ucontext_t *)context)->uc_mcontext.gregs[REG_RAX] = -38;
}

// From now on this process may only look at the clock, end, and return from a signal.
static bool refuse_system_calls()
{
    struct sigaction action = {};
    action.sa_sigaction = on_refused;
    action.sa_flags = SA_SIGINFO;
    const uint32_t allowed[] = {SYS_clock_gettime, SYS_exit_group, SYS_rt_sigreturn};
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, allowed[0], 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, allowed[1], 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, allowed[2], 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {sizeof code / sizeof code[0], code};
    return sigaction(SIGSYS, &action, nullptr) == 0 &&
           prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// What `run` does, counted, in a child process.
static counts count_in_child(void (*run)())
{
    if (!counted)
        counted = (counts *)mmap(nullptr, sizeof *counted, PROT_READ | PROT_WRITE,
                                 MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    REQUIRE(counted != MAP_FAILED);
    *counted = {};
    pid_t child = fork();
    REQUIRE(child >= 0);
    if (child == 0) {
        if (!refuse_system_calls())
            _exit(2);
        counting = true;
        run();
        counting = false;
        counted->finished = true;
        (void)syscall(SYS_exit_group, 0); // the sanitizers make other calls ahead of _exit
    }
    int status = -1;
    REQUIRE(waitpid(child, &status, 0) == child);
    REQUIRE(status == 0);
    REQUIRE(counted->finished);
    return *counted;
}

// ---------------------------------------------------------------------------------------
// The picture

static host_session session;

// As GDI leaves it: every tile may have changed.
static capture_result capture_unchanged()
{
    screen_dirty_all();
    return CAPTURE_FRAME;
}

static void iterate()
{
    for (int i = 0; i < 50; i++)
        if (!frame_pipeline_step(&session))
            counted->frames_sent = true;
}

static void start_still_picture()
{
    lock_init(&host_lock);
    screen.hello_width = screen.hello_height = 0;
    REQUIRE(screen_resize(300, 200));
    test_random random = test_random_seeded("still picture");
    for (int32_t y = 0; y < 200; y++)
        for (int32_t i = 0; i < 300 * 4; i++)
            screen.frame_buffer[y * screen.padded_width * 4 + i] = (uint8_t)random.next();
    frame_seq = 10; // no number at which a line is logged
    session.generation = session_generation;
    session.estimator = latency_start();
    session.tile_budget = TILE_BUDGET_MAX;
    session.ema_rtt16 = 0;
    session.acked_seq = frame_seq.load();
    session.confirmed_seq = frame_seq.load();
    session.advert_over = 1;
    frame_pipeline_start(CAP_TILE_CACHE | CAP_TEXT_LAYER);
    capture_script_step = capture_unchanged;
    flush_records.clear();
    REQUIRE(frame_pipeline_step(&session)); // the first picture goes out
    REQUIRE(flush_records.size() == 1);
    session.acked_seq = frame_seq.load();
    flush_records.clear();
    server_log_clear();
}

TEST_CASE("what is counted is seen")
{
    counts seen = count_in_child([] {
        void *volatile memory = malloc(16);
        free(memory);
        (void)syscall(SYS_getppid);
        (void)syscall(SYS_getuid);
    });
    CHECK(seen.allocations == 1);
    CHECK(seen.frees == 1);
    CHECK(seen.system_calls == 2);
    CHECK(seen.first_call == SYS_getppid);
}

TEST_CASE("a still picture allocates nothing and calls the system for the time only")
{
    start_still_picture();
    counts still = count_in_child(iterate);
    CAPTURE(still.first_call);
    CHECK(still.system_calls == 0);
    CHECK(still.allocations == 0);
    CHECK(still.frees == 0);
    CHECK_FALSE(still.frames_sent);
    // In this process too, where its results can be seen.
    iterate();
    CHECK(flush_records.empty());
    CHECK(server_log_lines().empty());
    CHECK(frame_seq == 11);
}
