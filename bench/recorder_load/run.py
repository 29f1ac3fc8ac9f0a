#!/usr/bin/python3
"""The recorder under load: N cameras x R Mbit/s x S seconds with segment
rotation (`ftpdisk record`) against each real FTP server kind, directly and
through the network lab at chosen round trips, plus the head-of-line case on
the scripted server and the connection-limit messages of `record` and `check`.

Per run it prints: the time until every camera had its first file open, write
latency p50 / p99 / max after that (and over the whole run), open and close
latency, failed calls with their reasons, and the bytes on the server's disk
checked file by file against what record wrote (record's content is
deterministic: byte i of segment s of camera c is (31c + s + i) mod 251). Each
run's files are deleted once checked. At the end: one table of every run and
the targets met or not met (docs/PERFORMANCE.md, "Recorder under load").

    bench/recorder_load/run.py --build build/release              # the full matrix
    bench/recorder_load/run.py --cameras 4 --seconds 5 --kinds vsftpd --rtts 10
    bench/recorder_load/run.py --build build/release --tls        # 64 cameras over ftps

With --tls the direct runs go over explicit FTPS ("ftps://"): each server
requires TLS on the login and on every data connection (ftpdisk-bench-server
--tls, the tests' TLS configuration of each kind; every kind but BusyBox,
vsftpd alone unless --kinds says otherwise), with the tests' certificate for
127.0.0.1, whose CA record trusts through SSL_CERT_FILE (the module checks
against the default trust store, which OpenSSL reads from there). No lab runs,
head-of-line case or limit case then: they do not involve TLS.

Exit status: 0 when every run completed and its bytes checked out (and, with
--strict, no call failed and every figure was measured); 1 otherwise. Targets not met do not change it:
they are figures, reported in the summary.

Only 127.0.0.1 is used. Needs root (the daemons), the servers that
scripts/install-deps.sh installs, and a build with tests, tools and benches.
"""

import argparse
import json
import math
import os
import queue
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import threading
import time

KINDS = ["pyftpdlib", "vsftpd", "proftpd", "pureftpd", "busybox"]
PERIOD = 251
TICK = 0.1
# Read and compared in pieces that are whole periods of the pattern, so that
# every piece of a file starts at the same phase as the file.
PIECE = PERIOD * 4096
PATTERN = bytes(i % PERIOD for i in range(PERIOD)) * (PIECE // PERIOD + 1)
SEGMENT_NAME = re.compile(r"cam(\d{2})/(\d{5})_\d{6}\.dat$")


def fail(message):
    print("run.py: " + message, file=sys.stderr)
    sys.exit(1)


def loadavg():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


def cpu_ticks():
    """(busy, total) jiffies of the whole machine."""
    with open("/proc/stat") as f:
        values = [int(v) for v in f.readline().split()[1:]]
    idle = values[3] + values[4]  # idle + iowait
    total = sum(values[:8])
    return total - idle, total


class Helper:
    """A helper program whose standard output is read line by line on a
    thread of its own, so that waiting for a line can have a time limit."""

    def __init__(self, argv):
        self.process = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
        self.lines = queue.Queue()
        self.seen = []
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def read_until(self, prefix, seconds):
        """The rest of the first line starting with `prefix`; None when the
        program ended or time ran out first."""
        deadline = time.monotonic() + seconds
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                return None
            try:
                line = self.lines.get(timeout=left)
            except queue.Empty:
                return None
            if line is None:
                return None
            self.seen.append(line)
            if line.startswith(prefix):
                return line[len(prefix):].strip()

    def end(self, seconds=30):
        """Closes its standard input (each helper ends on that) and waits,
        ending it by signal if it does not go. Returns the lines it printed
        since the last read_until."""
        try:
            self.process.stdin.close()
        except OSError:
            pass
        try:
            self.process.wait(timeout=seconds)
        except subprocess.TimeoutExpired:
            self.process.terminate()
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.reader.join(timeout=10)
        rest = []
        while True:
            try:
                line = self.lines.get_nowait()
            except queue.Empty:
                break
            if line is not None:
                rest.append(line)
        self.errors = self.process.stderr.read().strip()
        self.process.stderr.close()
        return rest


class Server:
    """One ftpdisk-bench-server: a real server of `kind` on 127.0.0.1."""

    def __init__(self, tools, kind, max_clients, tmpfs, tls=False):
        argv = [tools.server, "--kind", kind, "--max-clients", str(max_clients)]
        if tmpfs:
            argv.append("--tmpfs")
        if tls:
            argv.append("--tls")
        self.helper = Helper(argv)
        self.port = self.helper.read_until("port ", 90)
        self.root = self.helper.read_until("root ", 10)
        # With TLS: the CA certificate that signed the server's.
        self.certificate = self.helper.read_until("ca ", 10) if tls else None
        ready = self.helper.read_until("ready", 10)
        if self.port is None or self.root is None or ready is None or (tls and
                                                                    self.certificate is None):
            self.helper.end()
            fail("%s did not start: %s %s" % (kind, " / ".join(self.helper.seen),
                                             self.helper.errors))

    def stop(self):
        self.helper.end()


class Lab:
    """ftpdisk-lab in front of a server, at a given round trip."""

    def __init__(self, tools, upstream, rtt_ms):
        self.helper = Helper([tools.lab, "--upstream", upstream, "--rtt-ms", str(rtt_ms)])
        self.address = self.helper.read_until("listening ", 30)
        if self.address is None:
            self.helper.end()
            fail("the lab did not start: " + self.helper.errors)

    def stop(self):
        """Ends the lab; returns its counters."""
        counters = {}
        for line in self.helper.end():
            words = line.split()
            if len(words) == 2 and words[1].isdigit():
                counters[words[0]] = int(words[1])
        return counters


def llround(value):
    """C's llround for the positive values here (Python's round() rounds
    halves to even)."""
    return int(math.floor(value + 0.5))


def segment_size(rate_mbit, seconds, segment, number):
    """Bytes record writes into segment `number` (1, 2, ...) of a camera: the
    same float arithmetic as tools/record/Record.cpp, so the sizes agree exactly."""
    bytes_per_second = rate_mbit * 1e6 / 8
    ticks = llround(seconds / TICK)
    per_segment = max(1, llround(segment / TICK))
    first = (number - 1) * per_segment
    last = min(number * per_segment, ticks)
    at = lambda tick: int(bytes_per_second * TICK * float(tick))
    return at(last) - at(first)


def check_disk(directory, args):
    """Walks the recording below `directory` and checks every segment file's
    size and content. Returns (files, bytes, problems)."""
    files = 0
    total = 0
    problems = []
    ticks = llround(args.seconds / TICK)
    per_segment = max(1, llround(args.segment / TICK))
    segments = (ticks + per_segment - 1) // per_segment
    for folder, _, names in os.walk(directory):
        for name in sorted(names):
            path = os.path.join(folder, name)
            files += 1
            match = SEGMENT_NAME.search(path)
            if not match:
                problems.append("unexpected file " + path)
                continue
            camera, segment = int(match.group(1)), int(match.group(2))
            seed = (31 * camera + segment) % PERIOD
            size = os.path.getsize(path)
            total += size
            if camera < 1 or camera > args.cameras or segment < 1 or segment > segments:
                problems.append("file outside the run: " + path)
                continue
            expected = segment_size(args.rate, args.seconds, args.segment, segment)
            if size != expected:
                problems.append("%s holds %d bytes, record wrote %d" % (path, size, expected))
            offset = 0
            with open(path, "rb") as f:
                while True:
                    piece = f.read(PIECE)
                    if not piece:
                        break
                    if piece != PATTERN[seed:seed + len(piece)]:
                        for i, byte in enumerate(piece):
                            if byte != (seed + offset + i) % PERIOD:
                                problems.append("%s differs at byte %d" % (path, offset + i))
                                break
                        break
                    offset += len(piece)
    return files, total, problems


def ms(value):
    return "%.2f" % value


def latency_text(figures):
    if figures["calls"] == 0:
        return "no calls"
    return "p50 %s  p99 %s  max %s ms  (%d calls)" % (
        ms(figures["p50_ms"]), ms(figures["p99_ms"]), ms(figures["max_ms"]), figures["calls"])


def record_run(tools, args, kind, rtt, workdir):
    """One run: a fresh server (and lab), record, the disk check. Returns a
    dict of the run's figures."""
    name = kind if rtt is None else "%s via lab %d ms" % (kind, rtt)
    if args.tls:
        name += " over ftps"
    run = {"name": name, "kind": kind, "rtt": rtt, "load": loadavg(), "ok": True, "problems": []}
    server = Server(tools, kind, args.cameras + 10, not args.no_tmpfs, args.tls)
    lab = None
    address = "127.0.0.1:" + server.port
    if rtt is not None:
        lab = Lab(tools, address, rtt)
        address = lab.address
    figures_file = os.path.join(workdir, re.sub(r"[^a-z0-9]+", "-", name) + ".json")
    argv = [tools.ftpdisk, "record", "rec@%s://%s/video" % ("ftps" if args.tls else "ftp", address),
            "--cameras", str(args.cameras), "--seconds", "%g" % args.seconds,
            "--rate", "%g" % args.rate, "--segment", "%g" % args.segment,
            "--json", figures_file]
    if args.aio:
        argv.append("--aio")
    env = dict(os.environ, FTPDISK_PASSWORD="pw", HOME=workdir, FTPDISK_LOG_ROOT=workdir)
    if args.tls:
        env["SSL_CERT_FILE"] = server.certificate
    busy0, total0 = cpu_ticks()
    usage0 = resource.getrusage(resource.RUSAGE_CHILDREN)
    try:
        result = subprocess.run(argv, env=env, stdin=subprocess.DEVNULL, capture_output=True,
                                text=True, timeout=args.seconds + 600)
    except subprocess.TimeoutExpired:
        result = None
    usage1 = resource.getrusage(resource.RUSAGE_CHILDREN)
    busy1, total1 = cpu_ticks()
    run["machine_busy"] = 100.0 * (busy1 - busy0) / max(1, total1 - total0)
    run["record_cpu"] = (usage1.ru_utime - usage0.ru_utime) + (usage1.ru_stime - usage0.ru_stime)
    run["lab"] = lab.stop() if lab else None

    if result is None:
        run["ok"] = False
        run["problems"].append("record did not end in time")
        figures = None
    else:
        run["output"] = result.stdout
        try:
            with open(figures_file) as f:
                figures = json.load(f)
        except (OSError, ValueError) as error:
            figures = None
            run["ok"] = False
            run["problems"].append("no figures from record (%s); its output:\n%s%s" %
                                   (error, result.stdout, result.stderr))
    run["figures"] = figures
    directory = os.path.join(server.root, "video")
    if figures is not None:
        files, on_disk, problems = check_disk(directory, args)
        run["disk_files"], run["disk_bytes"] = files, on_disk
        expected = args.cameras * segment_size(args.rate, args.seconds, args.seconds, 1)
        if figures["bytes"] + figures["dropped_bytes"] != expected and not figures["interrupted"]:
            problems.append("record wrote %d bytes and dropped %d, %d expected" %
                            (figures["bytes"], figures["dropped_bytes"], expected))
        if on_disk != figures["bytes"]:
            problems.append("%d bytes on disk, record wrote %d" % (on_disk, figures["bytes"]))
        # A failed open leaves no file (or an empty one); a failed write or
        # close leaves a file that may hold fewer bytes than its segment: those
        # are failed calls, counted as such, not a disk that lost bytes.
        complete, failed = figures["files_complete"], figures["files_failed"]
        if not complete <= files <= complete + failed:
            problems.append("%d files on disk, record completed %d and lost %d" %
                            (files, complete, failed))
        if failed > 0:
            problems = [p for p in problems if " holds " not in p]
        run["ok"] = run["ok"] and not problems
        run["problems"] += problems
        run["bytes_ok"] = not problems
        if args.strict:
            if figures["failed_calls"] > 0:
                run["problems"].append("%d failed calls" % figures["failed_calls"])
            if figures["first_open_all_seconds"] is None:
                run["problems"].append("no time until every camera's first open")
            for kind in ("mkdir", "open", "close", "write", "write_after_ramp"):
                if figures[kind]["calls"] == 0:
                    run["problems"].append("no %s latency" % kind)
            run["ok"] = run["ok"] and not run["problems"]
    shutil.rmtree(directory, ignore_errors=True)
    server.stop()
    return run


def print_run(run, args):
    f = run["figures"]
    print("\n=== %s: %d cameras x %g Mbit/s x %g s, %g s segments%s" %
          (run["name"], args.cameras, args.rate, args.seconds, args.segment,
           ", aioWrite" if args.aio else ""))
    print("  load before        %s (1, 5, 15 min); machine CPU busy %.0f %% during the run, "
          "record used %.1f s CPU" % (run["load"], run["machine_busy"], run["record_cpu"]))
    if f is not None:
        first = f["first_open_all_seconds"]
        print("  first open, all    %s" % ("%.3f s" % first if first is not None else
                                           "never: %d of %d cameras had a file open" %
                                           (f["cameras_started"], f["cameras"])))
        print("  write after ramp   " + latency_text(f["write_after_ramp"]))
        print("  write, whole run   " + latency_text(f["write"]))
        print("  mkdir (createDir)  " + latency_text(f["mkdir"]))
        print("  open               " + latency_text(f["open"]))
        print("  close              " + latency_text(f["close"]))
        print("  max lag            %.3f s behind the cameras" % f["max_lag_seconds"])
        print("  failed calls       %d" % f["failed_calls"])
        for reason in f["failed_by_reason"]:
            print("    %7d  %s" % (reason["calls"], reason["reason"]))
        for call in f["first_failed_calls"][:5]:
            print("    cam%02d %s at %.2f s %s: %s" % (call["camera"], call["operation"],
                                                      call["at_seconds"], call["path"],
                                                      call["why"] or "not explained"))
        if "disk_bytes" in run:
            print("  bytes              record wrote %d in %d files (%d lost, %d bytes dropped); "
                  "on disk %d in %d files, %s" %
                  (f["bytes"], f["files_complete"], f["files_failed"], f["dropped_bytes"],
                   run["disk_bytes"], run["disk_files"],
                   "every byte checked" if run["bytes_ok"] else "NOT all as written"))
        print("  throughput         %.2f Mbit/s over %.2f s" %
              (f["bytes"] * 8 / 1e6 / max(f["elapsed_seconds"], 1e-9), f["elapsed_seconds"]))
    lab = run["lab"]
    if lab:
        print("  lab                %d control, %d data connections; %.1f MB to the server; "
              "%d resets, %d refused" %
              (lab.get("accepted", 0), lab.get("data_connections", 0),
               lab.get("data_to_server", 0) / 1e6, lab.get("resets", 0), lab.get("refused", 0)))
    for problem in run["problems"]:
        print("  PROBLEM            " + problem)
    sys.stdout.flush()


def head_of_line(tools, rotations):
    result = subprocess.run([tools.hol, str(rotations)], capture_output=True, text=True,
                            timeout=300, stdin=subprocess.DEVNULL)
    print("\n=== head-of-line: scripted slow server\n" + result.stdout.rstrip())
    row = re.search(r"^slow +(\d+) +([\d.]+) +([\d.]+) +([\d.]+) +([\d.]+) ", result.stdout, re.M)
    if result.returncode != 0 or not row:
        print("  PROBLEM            head_of_line_bench ended with %d: %s" %
              (result.returncode, result.stderr.strip()))
        return None
    return {"writes": int(row.group(1)), "seconds": float(row.group(2)),
            "p99_ms": float(row.group(4)), "max_ms": float(row.group(5))}


def limit_case(tools, kind, workdir):
    """A server that grants 3 connections, 4 cameras: record's verdict and
    check's cameras line must say so in one line naming the reply."""
    server = Server(tools, kind, 3, False)
    location = "rec@ftp://127.0.0.1:%s/video" % server.port
    env = dict(os.environ, FTPDISK_PASSWORD="pw", HOME=workdir, FTPDISK_LOG_ROOT=workdir)
    lines = {}
    try:
        record = subprocess.run([tools.ftpdisk, "record", location, "--cameras", "4",
                                 "--seconds", "1", "--segment", "1", "--rate", "1"],
                                env=env, capture_output=True, text=True, timeout=120,
                                stdin=subprocess.DEVNULL)
        check = subprocess.run([tools.ftpdisk, "check", location, "--cameras", "4"], env=env,
                               capture_output=True, text=True, timeout=120,
                               stdin=subprocess.DEVNULL)
    finally:
        server.stop()
    said = re.compile(r"server granted \d+ connections?; 4 cameras need 5: '.+'")
    lines["record"] = [l for l in record.stdout.splitlines() if l.startswith("verdict:")]
    lines["check"] = [l.strip() for l in check.stdout.splitlines() if l.startswith("  FAIL  cameras")]
    ok = all(len(v) == 1 and said.search(v[0]) for v in lines.values())
    return ok, lines


class Tools:
    def __init__(self, build):
        self.ftpdisk = os.path.join(build, "tools", "ftpdisk")
        self.lab = os.path.join(build, "tests", "support", "ftpdisk-lab")
        self.server = os.path.join(build, "bench", "ftpdisk-bench-server")
        self.hol = os.path.join(build, "bench", "head_of_line_bench")
        for program in (self.ftpdisk, self.lab, self.server, self.hol):
            if not os.access(program, os.X_OK):
                fail("%s is missing: build with tests, tools and benches" % program)


def kinds_list(text):
    kinds = [k for k in text.split(",") if k]
    for kind in kinds:
        if kind not in KINDS:
            raise argparse.ArgumentTypeError("no server kind %r (kinds: %s)" %
                                             (kind, ", ".join(KINDS)))
    return kinds


def rtt_list(text):
    return [int(v) for v in text.split(",") if v != ""]


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=os.path.join(here, "..", "..", "build", "release"),
                        help="build folder (default build/release)")
    parser.add_argument("--cameras", type=int, default=64)
    parser.add_argument("--rate", type=float, default=8, help="Mbit/s per camera")
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--segment", type=float, default=10, help="seconds per file")
    parser.add_argument("--aio", action="store_true", help="record through aioWrite")
    parser.add_argument("--kinds", type=kinds_list, default=KINDS,
                        help="servers run directly, comma-separated (default all five)")
    parser.add_argument("--lab-kinds", type=kinds_list, default=["pureftpd"],
                        help="servers run through the lab (default pureftpd)")
    parser.add_argument("--rtts", type=rtt_list, default=[0, 10, 50],
                        help="lab round trips in ms (default 0,10,50)")
    parser.add_argument("--no-tmpfs", action="store_true",
                        help="keep the servers' roots on disk instead of in memory")
    parser.add_argument("--hol-rotations", type=int, default=2)
    parser.add_argument("--no-head-of-line", action="store_true")
    parser.add_argument("--no-limit-case", action="store_true")
    parser.add_argument("--strict", action="store_true",
                        help="a failed call makes the exit status 1 (for the smoke test)")
    parser.add_argument("--keep", metavar="DIR",
                        help="keep record's figures files (JSON) in DIR")
    parser.add_argument("--tls", action="store_true",
                        help="the direct runs over explicit FTPS, each server requiring TLS "
                             "(default kind vsftpd; not busybox; no lab runs, head-of-line or "
                             "limit case)")
    args = parser.parse_args()
    if args.tls:
        explicit = set(a.split("=")[0] for a in sys.argv[1:])
        if "--kinds" not in explicit:
            args.kinds = ["vsftpd"]
        if "busybox" in args.kinds:
            parser.error("--tls: BusyBox's ftpd has no TLS")
        if "--lab-kinds" in explicit and args.lab_kinds:
            parser.error("--tls runs no lab runs")
        args.lab_kinds = []
        args.no_head_of_line = True
        args.no_limit_case = True
    if not 1 <= args.cameras <= 64:
        parser.error("--cameras takes 1 to 64")
    tools = Tools(os.path.abspath(args.build))
    workdir = tempfile.mkdtemp(prefix="ftpdisk-load-")
    if args.keep:
        os.makedirs(args.keep, exist_ok=True)

    with open("/proc/cpuinfo") as f:
        model = next((l.split(":", 1)[1].strip() for l in f if l.startswith("model name")), "?")
    print("machine: %d cores (%s), %s, load %s" %
          (os.cpu_count(), model, os.uname().release, loadavg()))
    print("command: " + " ".join(sys.argv))
    sys.stdout.flush()

    runs = []
    all_ok = True
    try:
        plan = [(kind, None) for kind in args.kinds]
        plan += [(kind, rtt) for kind in args.lab_kinds for rtt in args.rtts]
        for kind, rtt in plan:
            run = record_run(tools, args, kind, rtt, workdir)
            print_run(run, args)
            runs.append(run)
            all_ok = all_ok and run["ok"]
            if args.keep and run["figures"] is not None:
                name = re.sub(r"[^a-z0-9]+", "-", run["name"]) + ".json"
                with open(os.path.join(args.keep, name), "w") as f:
                    json.dump(dict(run["figures"], load_before=run["load"],
                                   machine_busy_percent=run["machine_busy"],
                                   disk_bytes=run.get("disk_bytes"), lab=run["lab"]), f, indent=1)
        hol = None
        if not args.no_head_of_line:
            hol = head_of_line(tools, args.hol_rotations)
            all_ok = all_ok and hol is not None
        limits = {}
        if not args.no_limit_case:
            print("\n=== a server that grants fewer connections than cameras (3 for 4)")
            for kind in args.kinds:
                ok, lines = limit_case(tools, kind, workdir)
                limits[kind] = ok
                all_ok = all_ok and ok
                for command in ("record", "check"):
                    print("  %-9s %-6s %s" % (kind, command, " | ".join(lines[command]) or
                                               "(no such line)"))
    finally:
        shutil.rmtree(workdir, ignore_errors=True)

    print("\n=== summary: %d cameras x %g Mbit/s x %g s, %g s segments" %
          (args.cameras, args.rate, args.seconds, args.segment))
    print("| run | load | first open all (s) | write p50 / p99 / max after ramp (ms) | "
          "open p50 / p99 / max (ms) | close p50 / p99 / max (ms) | failed calls | bytes on disk |")
    print("|---|---|---|---|---|---|---|---|")
    for run in runs:
        f = run["figures"]
        if f is None:
            print("| %s | %s | - | - | - | - | - | run failed |" % (run["name"], run["load"]))
            continue
        three = lambda x: "%s / %s / %s" % (ms(x["p50_ms"]), ms(x["p99_ms"]), ms(x["max_ms"]))
        first = f["first_open_all_seconds"]
        print("| %s | %s | %s | %s | %s | %s | %d | %s |" % (
            run["name"], run["load"].split()[0],
            "%.2f" % first if first is not None else "never",
            three(f["write_after_ramp"]), three(f["open"]), three(f["close"]),
            f["failed_calls"],
            "%d = written" % run["disk_bytes"] if run.get("bytes_ok") else
            "%s of %d" % (run.get("disk_bytes", "?"), f["bytes"])))

    print("\n=== targets")
    full = (args.cameras, args.rate, args.seconds, args.segment) == (64, 8, 60, 10)
    if not full:
        print("(sizes differ from the targets' 64 cameras x 8 Mbit/s x 60 s, 10 s segments: "
              "judged on these sizes)")

    def verdict(met, text, target=True):
        label = ("met" if met else "NOT met") if target else ("(info)")
        print("  %-7s %s" % (label, text))

    if not args.no_head_of_line:
        verdict(hol is not None and hol["max_ms"] < 50,
                "head-of-line: writer's max write latency under 50 ms on the slow server (%s)" %
                ("%.2f ms, %d writes in %.1f s" % (hol["max_ms"], hol["writes"], hol["seconds"])
                 if hol else "no figures"))
    for run in runs:
        f = run["figures"]
        if f is None:
            verdict(False, "%s: the run failed" % run["name"])
            continue
        failed, ramped = f["failed_calls"], f["write_after_ramp"]
        if run["rtt"] is None:
            verdict(failed == 0 and run.get("bytes_ok") and ramped["calls"] > 0 and
                    ramped["max_ms"] < 100,
                    "%s: 0 failed calls (%d), every byte on disk (%s), write max after ramp "
                    "under 100 ms (%.2f ms)" % (run["name"], failed,
                                               "yes" if run.get("bytes_ok") else "no",
                                               ramped["max_ms"]))
        else:
            rtt = run["rtt"]
            first = f["first_open_all_seconds"]
            # A latency bound in round trips means nothing without a round trip.
            latency_ok = ramped["calls"] > 0 and (
                rtt == 0 or (ramped["p99_ms"] < 2 * rtt and ramped["max_ms"] < 10 * rtt))
            bound = "" if rtt == 0 else " under %d ms" % (2 * rtt)
            verdict(failed == 0 and run.get("bytes_ok") and latency_ok and
                    first is not None and first < 2,
                    "%s: 0 failed calls (%d), every byte on disk (%s), after the ramp write p99%s "
                    "(%.2f) and max%s (%.2f), every first open within 2 s (%s)" %
                    (run["name"], failed, "yes" if run.get("bytes_ok") else "no",
                     bound, ramped["p99_ms"], "" if rtt == 0 else " under %d ms" % (10 * rtt),
                     ramped["max_ms"], "%.2f s" % first if first is not None else "never"),
                    # The issue sets this target at 50 ms; other round trips
                    # are measured the same way for comparison.
                    target=rtt == 50)
    for kind, ok in limits.items():
        verdict(ok, "%s with fewer connections than cameras: record and check say so in one "
                    "line each, naming the reply" % kind)
    print("\n%s" % ("every run completed and its bytes checked out" if all_ok else
                    "SOME RUNS FAILED (see PROBLEM lines above)"))
    return 0 if all_ok else 1


if __name__ == "__main__":
    sys.exit(main())
