// The crash report that the signal handler writes (the handler itself ends the
// process by the signal, which a test cannot survive).
#include "daemon/signals.h"

#include <ucontext.h>

#include <cerrno>
#include <regex>
#include <string>

#include "gtest/gtest.h"
#include "tests/foundation/test_util.h"

namespace {

TEST(CrashReport, NamesSignalFaultAddressFramesAndRegisters) {
  siginfo_t info{};
  info.si_signo = SIGSEGV;
  info.si_code = SEGV_MAPERR;
  info.si_errno = EFAULT;
  info.si_addr = reinterpret_cast<void*>(0xdead);
  ucontext_t context;
  getcontext(&context);
  std::string log = foundation_test::logged([&] { crash_report("Crash", &info, &context); }, 0);
  EXPECT_TRUE(
      log.starts_with("Crash: Begin\nCrash: Version " VIGILD_VERSION
                      "\nCrash: Received signal 11\nCrash: Signal code 1\nCrash: Associated "
                      "errno 14\nCrash: Dumping call stack:\nCrash: 0: 0x"))
      << log;
  EXPECT_TRUE(std::regex_search(
      log, std::regex("\nCrash: 0: 0x[0-9a-f]+ \\(faultaddr: 0xdead\\) \\(file: .+ "
                      "base: 0x[0-9a-f]+")))
      << log;
#if defined(__x86_64__)
  EXPECT_NE(log.find("\nCrash: Dumping registers:\nCrash: r8     0x"), std::string::npos) << log;
  EXPECT_NE(log.find("\nCrash: cr2    0x"), std::string::npos) << log;
#endif
  EXPECT_EQ(log.substr(log.size() - 11), "Crash: End\n");
  log = foundation_test::logged([] { crash_report("Tag", nullptr, nullptr); }, 0);
  EXPECT_EQ(log.find("signal") + log.find("registers"), 2 * std::string::npos);
}

}  // namespace
