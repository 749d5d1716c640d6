"""Command line, start-up, signals, the scan-directory cleanup, the crash report, the watchdog."""

import grp
import os
import pwd
import signal
from pathlib import Path

import vigil_bed as vb

USAGE = (
    "usage: vigild [-dfke] [-n max_fds] [-c config_file][-v num] [-p config_file] [-z dump_file]\n"
    "k: disable cleanup\ne: log to stderr\ns: don't log to syslog\nd: Don't become a daemon\n"
    "v ssl: Set log section/level 563 --> section 56 level 3.\n       6 or 006 --> All sections,"
    " level 6.c config_file: Name of alternate common configuration file\n"
    "z dump_file: Name of alternate dump file\np config_file: Name of alternate proxy configuration"
    " file\n")
CRASH = (r"Crash: Begin\nCrash: Version \S+\nCrash: Received signal 11\nCrash: Signal code 0\n"
         r"Crash: Dumping call stack:\n(Crash: \d+: 0x.*\n)+Crash: Dumping registers:\n"
         r"(Crash: \w+ +0x[0-9a-f]{8,} \(-?\d+\)\n){16,}Crash: End\n")


def state(pid, kill=False):  # "" once it is gone (a zombie is gone too)
    try:
        stat = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        if kill and stat[0] not in "ZX" and b"vigild" in Path(f"/proc/{pid}/cmdline").read_bytes():
            os.kill(pid, signal.SIGKILL)
        return "" if stat[0] in "ZX" else stat[0] + " " + stat[1]
    except OSError:
        return ""


class CliTest(vb.BedTestCase):
    def test_bad_command_lines_print_the_usage_and_exit_1_before_any_start_up(self):
        bed = self.make_bed()
        common, proxy = bed.write_config()
        good = ["-d", "-e", "-s", "-c", common, "-p", proxy]
        for args, complaint in ((["-f"], "invalid option -- 'f'\n"),
                                (["-d", "-c"], "option requires an argument -- 'c'\n"),
                                (good + ["-n", "100"], "")):  # -n is refused, as documented
            d = bed.start_daemon(raw_args=args, wait=False)
            self.assertEqual(d.wait(), 1)
            self.assertEqual(d.stderr(), (f"{vb.vigild_path()}: " if complaint else "") +
                             complaint + USAGE)

    def test_foreground_start_crash_report_log_options_and_stop_signals(self):
        bed = self.make_bed()
        stale, scan = bed.host_path("/var/support/my.dump"), bed.host_path("/var/av/scan")
        stale.write_text("stale\n")
        for name in ("vigild_1234", "other", "xvigild_1"):
            (scan / name).write_text("x")
        d = bed.start_daemon(extra_args=["-z", "/var/support/my.dump"])
        d.wait_log("Starting proxy\n")
        self.assertRegex(d.stderr(), r"(?s)\nVersion \S+\n.*Starting proxy\n")
        self.assertFalse(stale.exists())
        self.assertEqual(sorted(os.listdir(scan)), ["other", "xvigild_1"])
        self.assertFalse(bed.host_path("/var/run/vigild.pid").exists())  # foreground: no pid file
        d.signal(signal.SIGSEGV)
        self.assertEqual(d.wait(), -signal.SIGSEGV)
        self.assertRegex(d.stderr(), CRASH)
        # A tree this time: -k keeps it, the last daemon (without -k) removes it.
        (scan / "vigild_2" / "deeper").mkdir(parents=True)
        for name in ("vigild_2/deeper/leaf", "vigild_3"):
            (scan / name).write_text("x")
        # -k keeps the scan files; section 1 at level 5 shows "Starting proxy" but not
        # the level 9 version line; the default dump file carries the process id.
        for sig, args in ((signal.SIGINT, ["-k", "-v", "15"]),
                          (signal.SIGQUIT, ["-k", "-v", "9", "-v", "13"])):
            d = bed.start_daemon(verbosity=(), extra_args=args)
            d.signal(signal.SIGUSR2)
            path = bed.host_path(f"/var/support/dump.vigild.{d.pid}.txt")
            vb.wait_until(lambda: path.exists() and path.read_text().endswith("*\n"), 10, path.name)
            d.signal(sig)
            self.assertEqual(d.wait(), 0)
            self.assertIn("vigild_2", os.listdir(scan))
            self.assertNotIn("Version ", d.stderr())
            self.assertEqual("Starting proxy\n" in d.stderr(), args[-1] == "15")
        d = bed.start_daemon(raw_args=["-d", "-s", "-c", bed.etc / "common.conf", "-p",
                                       bed.etc / "vigild.conf"])
        self.assertEqual(bed.connect().cmd("QUIT"), b"221 Goodbye.\r\n")
        d.signal(signal.SIGTERM)
        self.assertEqual(d.wait(), 0)
        self.assertEqual(d.stderr(), "")  # without -e nothing goes to standard error
        self.assertEqual(sorted(os.listdir(scan)), ["other", "xvigild_1"])  # without -k: cleaned

    def test_start_up_fails_rather_than_keep_root_or_follow_a_planted_link(self):
        bed = self.make_bed()

        def fails(log, settings=None, wrapper=()):
            d = bed.start_daemon(settings, wait=False, wrapper=wrapper)
            self.assertEqual(d.wait(5), 1)
            self.assertRegex(d.stderr(), log + r"(.*\n)*Shuting down due to the above error\.\n")
        fails(r"Bad user: .*vigild\n(.*\n)*Bad group: .*oxb\n(.*\n)*Unknown group: oxb\nCan't switch "
              r"to user vigild and group oxb\.\n", {"user": "no-such-user", "group": "no-such-group"})
        ctrl = bed.host_path("/var/run/smtp_ctrl.sock")
        ctrl.symlink_to(bed.host_path("/var/tmp/target"))
        fails(r"Not a socket, left in place: /var/run/smtp_ctrl\.sock\nCan't initialize ctrl socket")
        self.assertTrue(ctrl.is_symlink())
        ctrl.unlink()
        ctrl.parent.chmod(0o555)  # and root without the right to override that
        fails(r"Couldn't bind ctrl socket /var/run/smtp_ctrl\.sock: Permission denied\n",
              wrapper=["setpriv", "--bounding-set=-dac_override"])
        # An unprivileged user keeps none of the groups it was started with.
        d = bed.start_daemon({"user": "nobody", "group": "nogroup"},
                             wrapper=["setpriv", "--groups=0,4"])
        status = Path(f"/proc/{d.pid}/status").read_text()
        for name, number in (("Uid", pwd.getpwnam("nobody").pw_uid),
                             ("Gid", grp.getgrnam("nogroup").gr_gid)):
            self.assertIn(f"\n{name}:" + f"\t{number}" * 4 + "\n", status)
        self.assertRegex(status, r"\nGroups:\s*\n")

    def test_watchdog_restarts_a_crashed_worker_and_leaves_with_it(self):
        bed = self.make_bed()
        common, proxy = bed.write_config()
        d = bed.start_daemon(raw_args=["-e", "-s", "-c", common, "-p", proxy], wait=False)
        self.assertEqual(d.wait(), 0)  # the process that detached
        pid_file = bed.host_path("/var/run/vigild.pid")

        def worker(other_than=None):
            text = pid_file.exists() and pid_file.read_text()
            return text and text.endswith("\n") and int(text) != other_than and int(text)
        first = vb.wait_until(worker, 15, "the pid file")
        watchdog = int(state(first).split()[1])
        self.addCleanup(state, watchdog, kill=True)
        os.kill(first, signal.SIGSEGV)  # a quick failure: restarted after 10 s
        second = vb.wait_until(lambda: worker(first), 30, "the restarted worker")
        self.addCleanup(state, second, kill=True)
        os.kill(second, signal.SIGTERM)
        vb.wait_until(lambda: not state(watchdog), 15, "the watchdog to end")
        self.assertFalse(pid_file.exists())
