"""Command line, start-up and orderly shutdown of the real daemon."""

import os
import re
import signal
import unittest

import vigil_bed as vb

USAGE = vb.USAGE_TEXT % "vigild"


class UsageTest(vb.BedTestCase):
    """Bad command lines print the usage text on stderr and exit 1."""

    def run_args(self, *args):
        bed = self.make_bed()
        d = bed.start_daemon(raw_args=list(args), wait=False)
        return d.wait(timeout=10), d.stderr(), d.stdout()

    def test_unknown_option_prints_getopt_complaint_then_usage(self):
        status, err, out = self.run_args("-f")
        self.assertEqual(status, 1)
        self.assertEqual(err, f"{vb.vigild_path()}: invalid option -- 'f'\n" + USAGE)
        self.assertEqual(out, "")

    def test_max_fds_option_is_refused_with_usage(self):
        status, err, out = self.run_args("-n", "100")
        self.assertEqual(status, 1)
        self.assertEqual(err, USAGE)
        self.assertEqual(out, "")

    def test_missing_option_value_prints_usage(self):
        status, err, _ = self.run_args("-d", "-c")
        self.assertEqual(status, 1)
        self.assertEqual(err, f"{vb.vigild_path()}: option requires an argument -- 'c'\n" + USAGE)

    def test_refusal_comes_before_any_start_up(self):
        # -n after otherwise good options still stops before anything is opened.
        bed = self.make_bed()
        common, proxy = bed.write_config()
        d = bed.start_daemon(raw_args=["-d", "-e", "-s", "-v", "9", "-c", common, "-p", proxy,
                                       "-n", "100"], wait=False)
        self.assertEqual(d.wait(timeout=10), 1)
        self.assertEqual(d.stderr(), USAGE)


class ForegroundTest(vb.BedTestCase):
    """-d -e -s: foreground, logs on stderr, clean exit on the stop signals."""

    def test_starts_logs_and_exits_0_on_sigterm(self):
        bed = self.start()
        d = bed.daemon
        d.wait_log("Starting proxy\n")
        err = d.stderr()
        self.assertRegex(err, r"(?m)^Version \S+\n")
        self.assertLess(err.index("Version "), err.index("Starting proxy\n"))
        d.signal(signal.SIGTERM)
        self.assertEqual(d.wait(), 0)

    def test_sigint_and_sigquit_also_end_with_status_0(self):
        for sig in (signal.SIGINT, signal.SIGQUIT):
            with self.subTest(signal=sig.name):
                bed = self.start()
                bed.daemon.signal(sig)
                self.assertEqual(bed.daemon.wait(), 0)

    def test_foreground_writes_no_pid_file(self):
        bed = self.start()
        self.assertNotIn("vigild.pid", os.listdir(bed.host_path("/var/run")))

    def test_listener_still_serves_after_start_up(self):
        bed = self.start()
        c = bed.connect()
        self.assertEqual(c.greeting, b"220 local.domain ESMTP\r\n")


class LogOptionTest(vb.BedTestCase):
    """-v N sets section N/10 to level N%10; -e and -s choose the destinations."""

    def test_section_level_option_applies_to_one_section(self):
        # Section 1 at level 5 shows "Starting proxy" (level 5) but not the
        # version line (level 9).
        bed = self.start(verbosity=("15",))
        bed.daemon.wait_log("Starting proxy\n")
        self.assertNotIn("Version ", bed.daemon.stderr())

    def test_later_level_option_wins(self):
        bed = self.start(verbosity=("9", "13"))
        c = bed.connect()  # something logged after start-up, in other sections
        c.cmd("QUIT")
        bed.daemon.wait_log("response to sender QUIT command")
        err = bed.daemon.stderr()
        self.assertNotIn("Starting proxy\n", err)
        self.assertNotIn("Version ", err)

    def test_without_e_nothing_goes_to_stderr(self):
        bed = self.make_bed()
        common, proxy = bed.write_config()
        d = bed.start_daemon(raw_args=["-d", "-s", "-v", "9", "-c", common, "-p", proxy])
        c = bed.connect()
        self.assertEqual(c.cmd("NOOP"), b"250 OK\r\n")
        self.assertEqual(c.cmd("QUIT"), b"221 Goodbye.\r\n")
        d.signal(signal.SIGTERM)
        self.assertEqual(d.wait(), 0)
        self.assertEqual(d.stderr(), "")


class DumpFileTest(vb.BedTestCase):
    """The state dump file: named by -z or after the process, stale copies removed."""

    def test_leftover_dump_file_is_removed_at_start(self):
        bed = self.make_bed()
        stale = bed.host_path("/var/support/my.dump")
        stale.write_text("stale\n")
        bed.start_daemon(extra_args=["-z", "/var/support/my.dump"])
        self.assertFalse(stale.exists())

    def test_sigusr2_writes_the_dump_to_the_z_file(self):
        bed = self.start(extra_args=["-z", "/var/support/my.dump"])
        bed.daemon.signal(signal.SIGUSR2)
        path = bed.host_path("/var/support/my.dump")
        vb.wait_until(lambda: path.exists() and "DLOG DUMP:\n" in path.read_text(), 10,
                      "the dump file")
        self.assertIn("    num_connections 0\n", path.read_text())
        self.assertTrue(bed.daemon.alive())

    def test_default_dump_file_carries_the_process_id(self):
        bed = self.start()
        bed.daemon.signal(signal.SIGUSR2)
        path = bed.host_path(f"/var/support/dump.vigild.{bed.daemon.pid}.txt")
        vb.wait_until(lambda: path.exists() and "DLOG DUMP:\n" in path.read_text(), 10,
                      f"{path.name}")


class WatchdogTest(vb.BedTestCase):
    """Without -d: a watchdog parent, a worker that writes the pid file."""

    def _kill_if_vigild(self, pid):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                if b"vigild" not in f.read():
                    return
            os.kill(pid, signal.SIGKILL)
        except (FileNotFoundError, ProcessLookupError):
            pass

    def test_worker_writes_pid_file_and_watchdog_removes_it_after_sigterm(self):
        bed = self.make_bed()
        common, proxy = bed.write_config()
        d = bed.start_daemon(raw_args=["-e", "-s", "-c", common, "-p", proxy], wait=False)
        self.assertEqual(d.wait(timeout=10), 0)  # the process that daemonised
        pid_file = bed.host_path("/var/run/vigild.pid")
        vb.wait_until(lambda: pid_file.exists() and pid_file.read_text().endswith("\n"), 15,
                      "the pid file")
        worker = int(pid_file.read_text())
        self.addCleanup(self._kill_if_vigild, worker)
        with open(f"/proc/{worker}/stat") as f:
            watchdog = int(re.match(r"\d+ \(.*\) \S (\d+)", f.read()).group(1))
        self.addCleanup(self._kill_if_vigild, watchdog)
        os.kill(worker, signal.SIGTERM)
        vb.wait_until(lambda: vb.process_gone(watchdog), 15,
                      "the watchdog to end")
        self.assertFalse(pid_file.exists())


if __name__ == "__main__":
    unittest.main()
