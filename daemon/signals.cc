#include "daemon/signals.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "daemon/vigild.h"
#include "foundation/dlog.h"

namespace {

constexpr int MAX_FRAMES = 20;
constexpr size_t LINE_SIZE = 1024;

#if defined(__x86_64__)
// General registers in the order of the machine context's gregs array.
constexpr std::array<const char*, NGREG> REGISTER_NAMES = {
    "r8",  "r9",  "r10", "r11", "r12", "r13", "r14",    "r15", "rdi",    "rsi",     "rbp", "rbx",
    "rdx", "rax", "rcx", "rsp", "rip", "efl", "csgsfs", "err", "trapno", "oldmask", "cr2"};
#elif defined(__i386__)
constexpr std::array<const char*, NGREG> REGISTER_NAMES = {
    "gs",  "fs",  "es",     "ds",  "edi", "esi", "ebp", "esp",  "ebx", "edx",
    "ecx", "eax", "trapno", "err", "eip", "cs",  "efl", "uesp", "ss"};
#endif

void flag_usr1(int) {
  usr1_requested = 1;
}
void flag_dump(int) {
  dump_requested = 1;
}

void on_shutdown(int) {
  set_signal(SIGUSR1, SIG_IGN, 0);
  set_signal(SIGUSR2, SIG_IGN, 0);
  shutdown_requested = 1;
}

void on_crash(int sig, siginfo_t* info, void* context) {
  set_signal(SIGUSR1, SIG_IGN, 0);
  set_signal(SIGUSR2, SIG_IGN, 0);
  crash_report("Crash", info, context);
  // Core files, where the system writes them, land beside the dumps.
  if (chdir("/var/support") < 0) {
  }
  // SA_RESETHAND restored the default action: raising again ends the process
  // by this signal, which the watchdog answers with a restart.
  raise(info != nullptr ? info->si_signo : sig);
}

// Appends one formatted piece to a report line only if it fits whole, so a
// line that runs out of room is cut at a piece boundary.
__attribute__((format(printf, 3, 4))) bool append_piece(char* line, size_t& used,
                                                        const char* format, ...) {
  if (used >= LINE_SIZE) return false;
  va_list args;
  va_start(args, format);
  int n = vsnprintf(line + used, LINE_SIZE - used, format, args);
  va_end(args);
  if (n < 0 || static_cast<size_t>(n) >= LINE_SIZE - used) {
    line[used] = '\0';
    used = LINE_SIZE;
    return false;
  }
  used += static_cast<size_t>(n);
  return true;
}

}  // namespace

void set_signal(int sig, SignalHandler handler, int flags) {
  dlog(DLOG_SIGNAL, 9, "%s: %d %p %d\n", "set_signal", sig, reinterpret_cast<void*>(handler),
       flags);
  struct sigaction sa {};
  sa.sa_handler = handler;
  sa.sa_flags = flags;
  sigemptyset(&sa.sa_mask);
  if (sigaction(sig, &sa, nullptr) < 0) {
    dlog(DLOG_SIGNAL, 0, "%s: sig=%d func=%p: %m\n", "set_signal", sig,
         reinterpret_cast<void*>(handler));
    exit(1);
  }
}

void set_signal2(int sig, SignalHandler2 handler, int flags) {
  dlog(DLOG_SIGNAL, 9, "%s: %d %p %d\n", "set_signal2", sig, reinterpret_cast<void*>(handler),
       flags);
  struct sigaction sa {};
  sa.sa_sigaction = handler;
  sa.sa_flags = flags | SA_SIGINFO;
  sigemptyset(&sa.sa_mask);
  if (sigaction(sig, &sa, nullptr) < 0) {
    dlog(DLOG_SIGNAL, 0, "%s: sig=%d func=%p: %m\n", "set_signal2", sig,
         reinterpret_cast<void*>(handler));
    exit(1);
  }
}

void install_signal_handlers() {
  set_signal(SIGUSR1, flag_usr1, SA_RESTART);
  set_signal(SIGUSR2, flag_dump, SA_RESTART);
  set_signal(SIGINT, on_shutdown, 0);
  set_signal(SIGQUIT, on_shutdown, 0);
  set_signal(SIGTERM, on_shutdown, 0);
  set_signal(SIGPIPE, SIG_IGN, 0);
  for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT})
    set_signal2(sig, on_crash, SA_RESETHAND);
}

void crash_report(const char* tag, const siginfo_t* info, const void* context) {
  dlog(DLOG_CRASH, 0, "%s: Begin\n", tag);
  dlog(DLOG_CRASH, 0, "%s: Version %s\n", tag, VIGILD_VERSION);
  if (info != nullptr) {
    dlog(DLOG_CRASH, 0, "%s: Received signal %d\n", tag, info->si_signo);
    dlog(DLOG_CRASH, 0, "%s: Signal code %d\n", tag, info->si_code);
    if (info->si_errno != 0) dlog(DLOG_CRASH, 0, "%s: Associated errno %d\n", tag, info->si_errno);
  }
  void* frames[MAX_FRAMES];
  int count = backtrace(frames, MAX_FRAMES);
  dlog(DLOG_CRASH, 0, "%s: Dumping call stack:\n", tag);
  for (int i = 0; i < count; i++) {
    char line[LINE_SIZE];
    size_t used = 0;
    line[0] = '\0';
    bool room = append_piece(line, used, "%d: %p", i, frames[i]);
    if (room && i == 0 && info != nullptr && info->si_addr != nullptr)
      room = append_piece(line, used, " (faultaddr: %p)", info->si_addr);
    Dl_info where;
    if (room && dladdr(frames[i], &where) != 0) {
      room = append_piece(line, used, " (file: %s base: %p", where.dli_fname, where.dli_fbase);
      if (room && where.dli_sname != nullptr)
        room = append_piece(line, used, " sym: %s symaddr: %p", where.dli_sname, where.dli_saddr);
      if (room) append_piece(line, used, ")");
    }
    dlog(DLOG_CRASH, 0, "%s: %s\n", tag, line);
  }
#if defined(__x86_64__) || defined(__i386__)
  if (context != nullptr) {
    const auto* uc = static_cast<const ucontext_t*>(context);
    dlog(DLOG_CRASH, 0, "%s: Dumping registers:\n", tag);
    for (size_t r = 0; r < REGISTER_NAMES.size(); r++) {
      long long value = uc->uc_mcontext.gregs[r];
      dlog(DLOG_CRASH, 0, "%s: %-6s 0x%08llx (%lld)\n", tag, REGISTER_NAMES[r],
           static_cast<unsigned long long>(value), value);
    }
  }
#endif
  dlog(DLOG_CRASH, 0, "%s: End\n", tag);
}

void signal_dump(FILE* stream) {
  fputs("Signal information: (later)\n", stream);
}
