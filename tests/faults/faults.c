/* Preloaded into the program under test: makes single calls of one run fail, or
 * ends the process at one.
 *
 *   TZREGISTER_FAULT         KIND:FIRST:EFFECT, e.g. "write:3:ENOSPC". KIND is a row of
 *                            kKinds below or "memory" (every allocation). FIRST counts
 *                            from 1, beginning with main; a "+" behind it means that
 *                            call and all later ones. EFFECT is a row of kEffects.
 *                            FIRST 0 only counts.
 *   TZREGISTER_FAULT_REPORT  an existing file of at least sizeof(struct Report) bytes,
 *                            which receives what happened, also when the process dies.
 *
 * Allocations are caught by name. System calls are caught by the kernel (a seccomp
 * filter that raises SIGSYS), so those that the C library makes for itself count too.
 * sleep() takes milliseconds: the program's pauses are not what is tested here. */

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

/* What the test reads; the layout is known to harness/faults.py. */
struct Report {
  _Atomic uint64_t calls;    /* calls of the kind so far */
  _Atomic uint64_t injected; /* how many of them were made to fail */
  _Atomic int64_t number;    /* of the last system call that was made to fail */
  _Atomic int64_t target;    /* its first argument */
  _Atomic int64_t writing;   /* the file that was emptied and is still open, else -1 */
};

enum { kMostCalls = 12, kNoEnd = -1 };

struct Kind {
  const char* name;
  long calls[kMostCalls]; /* ends with kNoEnd */
};

/* The older calls exist on some machines only. */
#ifdef SYS_open
#define OLDER_OPEN SYS_open, SYS_creat,
#define OLDER_MKDIR SYS_mkdir,
#else
#define OLDER_OPEN
#define OLDER_MKDIR
#endif

static const struct Kind kKinds[] = {
    {"open", {OLDER_OPEN SYS_openat, kNoEnd}},
    {"read", {SYS_read, SYS_readv, SYS_pread64, kNoEnd}},
    {"write", {SYS_write, SYS_writev, SYS_pwrite64, kNoEnd}},
    {"close", {SYS_close, kNoEnd}},
    {"mkdir", {OLDER_MKDIR SYS_mkdirat, kNoEnd}},
    {"network", {SYS_socket, SYS_connect, SYS_sendto, SYS_sendmsg, SYS_recvfrom, SYS_recvmsg,
                 SYS_setsockopt, SYS_getsockopt, SYS_getsockname, SYS_getpeername, kNoEnd}},
    {"any", {kNoEnd}}, /* all but kUntouched */
};

/* What cannot be carried out from a signal handler on behalf of the program. */
static const long kUntouched[] = {SYS_rt_sigreturn, SYS_rt_sigprocmask, SYS_rt_sigaction,
                                  SYS_exit,         SYS_exit_group,     SYS_clone,
                                  SYS_clone3,       SYS_execve};

/* What tells of a file that is being rewritten; seen, though not counted, with every kind. */
static const long kWatched[] = {SYS_ftruncate, SYS_close};

struct Effect {
  const char* name;
  int error;  /* for errno, or */
  int signal; /* sent before the call is made */
};

static const struct Effect kEffects[] = {
    {"ENOSPC", ENOSPC, 0}, {"EIO", EIO, 0},       {"EACCES", EACCES, 0},
    {"EINTR", EINTR, 0},   {"ENOMEM", ENOMEM, 0}, {"EMFILE", EMFILE, 0},
    {"KILL", 0, SIGKILL},  {"TERM", 0, SIGTERM},
};

#define LENGTH(array) (sizeof(array) / sizeof((array)[0]))

static struct Report unreported;
static struct Report* report = &unreported;
static const struct Kind* kind;
static const struct Effect* effect;
static int countsMemory;
static uint64_t first;
static int repeats;
static atomic_int armed;

/* Counts one call; true when it is to fail. */
static int IsStruck(void) {
  const uint64_t place = atomic_fetch_add(&report->calls, 1) + 1;
  const int struck = first != 0 && (repeats ? place >= first : place == first);
  if (struck) atomic_fetch_add(&report->injected, 1);
  return struck;
}

/* ---- Allocations ---- */

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);

static int IsRefused(void) {
  if (!countsMemory || !atomic_load(&armed) || !IsStruck()) return 0;
  errno = ENOMEM;
  return 1;
}

void* malloc(size_t size) { return IsRefused() ? NULL : __libc_malloc(size); }

void* calloc(size_t count, size_t size) {
  return IsRefused() ? NULL : __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
  return IsRefused() ? NULL : __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size) {
  return IsRefused() ? NULL : __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** block, size_t alignment, size_t size) {
  void* const made = memalign(alignment, size);
  if (made == NULL) return ENOMEM;
  *block = made;
  return 0;
}

unsigned sleep(unsigned seconds) {
  const struct timespec moment = {0, 2000000};
  nanosleep(seconds == 0 ? &(struct timespec){0, 0} : &moment, NULL);
  return 0;
}

/* ---- System calls ---- */

/* Makes a system call from the one place that the filter lets through. */
long FaultsSyscall(long number, long a, long b, long c, long d, long e, long f);
extern const char FaultsSyscallEnd[];

#if defined(__x86_64__)
enum { kMachine = AUDIT_ARCH_X86_64 };
#define ARGUMENT(context, index) ((context)->uc_mcontext.gregs[kRegisters[index]])
#define RESULT(context) ((context)->uc_mcontext.gregs[REG_RAX])
static const int kRegisters[] = {REG_RDI, REG_RSI, REG_RDX, REG_R10, REG_R8, REG_R9};
__asm__(
    ".text\n.globl FaultsSyscall\n.globl FaultsSyscallEnd\n"
    ".type FaultsSyscall, @function\nFaultsSyscall:\n"
    "mov %rdi, %rax\nmov %rsi, %rdi\nmov %rdx, %rsi\nmov %rcx, %rdx\n"
    "mov %r8, %r10\nmov %r9, %r8\nmov 8(%rsp), %r9\nsyscall\n"
    "FaultsSyscallEnd:\nret\n");
#elif defined(__aarch64__)
enum { kMachine = AUDIT_ARCH_AARCH64 };
#define ARGUMENT(context, index) ((context)->uc_mcontext.regs[index])
#define RESULT(context) ((context)->uc_mcontext.regs[0])
__asm__(
    ".text\n.globl FaultsSyscall\n.globl FaultsSyscallEnd\n"
    ".type FaultsSyscall, %function\nFaultsSyscall:\n"
    "mov x8, x0\nmov x0, x1\nmov x1, x2\nmov x2, x3\nmov x3, x4\nmov x4, x5\nmov x5, x6\n"
    "svc #0\nFaultsSyscallEnd:\nret\n");
#else
#error "system calls of this machine are not known"
#endif

static long Carry(long number, const ucontext_t* context) {
  return FaultsSyscall(number, (long)ARGUMENT(context, 0), (long)ARGUMENT(context, 1),
                       (long)ARGUMENT(context, 2), (long)ARGUMENT(context, 3),
                       (long)ARGUMENT(context, 4), (long)ARGUMENT(context, 5));
}

/* Notes which file is being rewritten: the one that was emptied, until it is closed. */
static void Observe(long number, const ucontext_t* context, long result) {
  if (number == SYS_ftruncate && result == 0) {
    atomic_store(&report->writing, (long)ARGUMENT(context, 0));
  } else if (number == SYS_close && (long)ARGUMENT(context, 0) == atomic_load(&report->writing)) {
    atomic_store(&report->writing, -1);
  }
}

/* True when the call is one of the kind that is counted. */
static int IsCounted(long number) {
  if (kind->calls[0] == kNoEnd) return 1;
  for (const long* call = kind->calls; *call != kNoEnd; ++call) {
    if (*call == number) return 1;
  }
  return 0;
}

/* Answers the system call that the filter caught. */
static void OnSystemCall(int signalNumber, siginfo_t* info, void* where) {
  (void)signalNumber;
  ucontext_t* const context = where;
  const long number = info->si_syscall;
  if (IsCounted(number) && IsStruck()) {
    atomic_store(&report->number, number);
    atomic_store(&report->target, (long)ARGUMENT(context, 0));
    if (effect->signal == 0) {
      RESULT(context) = -effect->error;
      return;
    }
    FaultsSyscall(SYS_kill, FaultsSyscall(SYS_getpid, 0, 0, 0, 0, 0, 0), effect->signal, 0, 0, 0,
                  0);
  }
  const long result = Carry(number, context);
  Observe(number, context, result);
  RESULT(context) = result;
}

static struct sock_filter program[64];
static unsigned short programLength;

static void Add(unsigned short code, uint32_t value, unsigned char whenEqual,
                unsigned char otherwise) {
  program[programLength++] = (struct sock_filter){code, whenEqual, otherwise, value};
}

static void Load(size_t offset) { Add(BPF_LD | BPF_W | BPF_ABS, (uint32_t)offset, 0, 0); }

static void Return(uint32_t verdict) { Add(BPF_RET | BPF_K, verdict, 0, 0); }

/* Returns `verdict` for each of the calls listed. */
static void Decide(const long* calls, size_t count, uint32_t verdict) {
  for (size_t index = 0; index < count && calls[index] != kNoEnd; ++index) {
    Add(BPF_JMP | BPF_JEQ | BPF_K, (uint32_t)calls[index], 0, 1);
    Return(verdict);
  }
}

/* Lets through what comes from FaultsSyscall. */
static void AllowOwnCalls(void) {
  const uint64_t end = (uint64_t)(uintptr_t)FaultsSyscallEnd;
  const size_t offset = offsetof(struct seccomp_data, instruction_pointer);
  Load(offset);
  Add(BPF_JMP | BPF_JEQ | BPF_K, (uint32_t)end, 0, 3);
  Load(offset + sizeof(uint32_t));
  Add(BPF_JMP | BPF_JEQ | BPF_K, (uint32_t)(end >> 32), 0, 1);
  Return(SECCOMP_RET_ALLOW);
}

static void CatchSystemCalls(void) {
  const struct sigaction action = {.sa_sigaction = OnSystemCall, .sa_flags = SA_SIGINFO};
  sigaction(SIGSYS, &action, NULL);
  Load(offsetof(struct seccomp_data, arch));
  Add(BPF_JMP | BPF_JEQ | BPF_K, kMachine, 1, 0);
  Return(SECCOMP_RET_ALLOW);
  AllowOwnCalls();
  Load(offsetof(struct seccomp_data, nr));
  const int all = kind->calls[0] == kNoEnd;
  Decide(kUntouched, LENGTH(kUntouched), SECCOMP_RET_ALLOW);
  Decide(kind->calls, kMostCalls, SECCOMP_RET_TRAP);
  Decide(kWatched, LENGTH(kWatched), SECCOMP_RET_TRAP);
  Return(all ? SECCOMP_RET_TRAP : SECCOMP_RET_ALLOW);
  const struct sock_fprog filter = {programLength, program};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
    abort();
  }
}

/* ---- Start ---- */

static void MapReport(const char* path) {
  if (path == NULL) return;
  const int file = open(path, O_RDWR | O_CLOEXEC);
  void* const mapped =
      mmap(NULL, sizeof(struct Report), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (mapped == MAP_FAILED) abort();
  close(file);
  report = mapped;
  atomic_store(&report->writing, -1);
}

/* Takes "KIND:FIRST:EFFECT" apart. */
static void ReadOrder(const char* order) {
  const char* const number = strchr(order, ':') + 1;
  char* rest = NULL;
  first = strtoull(number, &rest, 10);
  repeats = *rest == '+';
  const char* const name = strchr(rest, ':') + 1;
  const size_t length = (size_t)(number - 1 - order);
  countsMemory = strncmp(order, "memory:", length + 1) == 0;
  for (size_t index = 0; index < LENGTH(kKinds); ++index) {
    const char* const row = kKinds[index].name;
    if (strlen(row) == length && strncmp(order, row, length) == 0) kind = &kKinds[index];
  }
  for (size_t index = 0; index < LENGTH(kEffects); ++index) {
    if (strcmp(name, kEffects[index].name) == 0) effect = &kEffects[index];
  }
  if (effect == NULL || (kind == NULL && !countsMemory)) abort();
}

typedef int (*Main)(int, char**, char**);
static Main programMain;

static int RunMain(int argc, char** argv, char** environment) {
  const char* const order = getenv("TZREGISTER_FAULT");
  if (order != NULL) {
    ReadOrder(order);
    MapReport(getenv("TZREGISTER_FAULT_REPORT"));
    if (!countsMemory) CatchSystemCalls();
    atomic_store(&armed, 1);
  }
  return programMain(argc, argv, environment);
}

typedef int (*StartMain)(Main, int, char**, void (*)(void), void (*)(void), void (*)(void), void*);

/* Stands before the C library's own, which it finds behind itself. */
int __libc_start_main(Main main, int argc, char** argv, void (*init)(void), void (*fini)(void),
                      void (*loaderFini)(void), void* stackEnd) {
  StartMain start = NULL;
  *(void**)&start = dlsym(RTLD_NEXT, "__libc_start_main");
  programMain = main;
  return start(RunMain, argc, argv, init, fini, loaderFini, stackEnd);
}
