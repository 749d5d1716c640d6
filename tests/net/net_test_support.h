// Running a check inside a private network namespace set up with ip(8).
#pragma once

#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "tests/foundation/test_util.h"

namespace net_test {

using foundation_test::logged;
using foundation_test::SKIP;

// Loopback with an alias, one veth up with a broadcast address, one down.
inline const std::vector<std::string> LO_ALIAS_AND_VETH = {
    "ip link set lo up",
    "ip addr add 127.0.0.2/8 label lo:1 dev lo",
    "ip link add v0 type veth peer name v1",
    "ip addr add 192.0.2.10/24 brd + dev v0",
    "ip link set v0 up",
    "ip link add v2 type veth peer name v3",
    "ip addr add 198.51.100.1/24 dev v2",
};

// Forks; the child enters a new network namespace, runs the setup commands
// and returns body()'s text. SKIP when the namespace or the set-up is not
// possible here.
inline std::string in_netns(const std::vector<std::string>& setup,
                            const std::function<std::string()>& body) {
  return foundation_test::in_child([&] {
    if (unshare(CLONE_NEWNET) != 0) _exit(77);
    for (const std::string& cmd : setup) {
      if (system((cmd + " >/dev/null 2>&1").c_str()) != 0) _exit(77);
    }
    return body();
  });
}

}  // namespace net_test
