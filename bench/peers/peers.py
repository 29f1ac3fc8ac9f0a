#!/usr/bin/python3
"""Side-by-side benchmark of the store against ordinary FTP clients.

Starts vsftpd on 127.0.0.1 with its root on a tmpfs (/dev/shm), then, in one
run, measures each piece of work with the store (ftpdisk_peers_store, the
exported classes over the shared module) and with a peer doing the same work,
interleaved store, peer, store, peer, ... for --runs rounds:

  stream   open, 64 KiB writes, close        peer: curl -T of the same bytes
  Put      Put of a local tmpfs file          peer: curl -T of that file
  Get      Get into a local tmpfs file        peer: curl -o into a tmpfs file
  many     COUNT small files, pooled          peer: ftplib, one connection
  list     getFileList of a big directory     peer: curl's bare LIST
  CPU      CPU seconds per GiB of the stream  peer: curl -T
  TCP      loopback ceiling for 8 and 64 KiB writes (ftpdisk_peers_tcp)

and over explicit FTPS (ftps://), against a second vsftpd on the same root
that requires TLS on the login and on every data connection (and data
connections that resume the control connection's session), with a
certificate for 127.0.0.1 made by the openssl command, which both sides
verify:

  ftps stream  open, 64 KiB writes, close    peer: curl --ssl-reqd -T
  ftps Put     Put of a local tmpfs file      peer: curl --ssl-reqd -T
  ftps Get     Get into a local tmpfs file    peer: curl --ssl-reqd -o
  ftps CPU     CPU seconds per GiB of the ftps stream and of the ftps Get,
               against curl's for the same work

plus the store's memory: RSS per open handle with --handles open (plain) and
with --tls-handles open (ftps), and RSS of an idle store. Every transfer's bytes are checked (uploads against the source
pattern, downloads against the server's file, listings against the names
made); a wrong byte fails the run. Prints a table of medians, ranges and
ratios (the median of each round's store figure over the peer figure taken
right after it), and with --json writes every sample.

Wall times cover one login on each side and no process start: curl's own
time_total and the ftplib peer's timer run from connect to the last transfer;
the store's handle operations (stream, Put, Get, many) are timed from the
first open, which connects and logs in the connection they run on, to the last
close, and getFileList, which runs on the store's main connection, from init
(connect, log in) to uninit. The 64 KiB ceiling is compared with a stream that
finds a logged-in connection in the pool (the transfer alone). CPU: user plus
system seconds of the whole process (wait4), both sides alike.

Needs root (vsftpd), vsftpd, curl, openssl and the local user rec (password
pw), all from scripts/install-deps.sh. Traffic stays on 127.0.0.1.

    peers.py --store BIN --tcp BIN [--runs 3] [--tiny] [--no-tls] [--json OUT]
"""
import argparse
import json
import os
import resource
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pattern  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
USER, PASSWORD = "rec", "pw"
MIB = 1 << 20
GIB = 1 << 30


class Failure(Exception):
    pass


def run(argv, timeout=600):
    """Runs a program and returns its standard output; raises on failure."""
    proc = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    out, err = b"", b""
    try:
        out, err = proc.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.communicate()
        raise Failure("%s: no end after %d s" % (argv[0], timeout))
    # communicate has reaped the child, so its usage is now in
    # RUSAGE_CHILDREN (timed reads it as a difference).
    if proc.returncode != 0:
        raise Failure("%s exited %d: %s" % (" ".join(argv), proc.returncode,
                                             err.decode(errors="replace").strip()[-500:]))
    return out.decode(errors="replace")


def timed(argv, timeout=600):
    """Runs a program and returns (stdout, CPU seconds of that child)."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    out = run(argv, timeout)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    return out, cpu


def fields(line):
    values = {}
    for word in line.split():
        if "=" in word:
            key, value = word.split("=", 1)
            values[key] = value
    return values


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def make_certificate(work):
    """A self-signed certificate for 127.0.0.1 (its address as subject
    alternative name) and its key, made with the openssl command; both sides
    trust it as their only CA. Returns (certificate, key)."""
    cert = os.path.join(work, "server.pem")
    key = os.path.join(work, "server.key")
    run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
         "-keyout", key, "-out", cert, "-subj", "/CN=127.0.0.1",
         "-addext", "subjectAltName=IP:127.0.0.1"], timeout=60)
    os.chmod(key, 0o600)
    return cert, key


class Vsftpd:
    """vsftpd on 127.0.0.1 serving `root` to the local user rec; with `tls`
    (certificate, key) it requires explicit TLS before the login and on every
    data connection, and data connections that resume the control
    connection's TLS session."""

    def __init__(self, work, root, clients, tls=None):
        self.work = work
        self.root = root
        self.tls = tls
        self.port = free_port()
        name = "vsftpd-tls" if tls else "vsftpd"
        self.conf = os.path.join(work, name + ".conf")
        empty = os.path.join(work, "empty")
        os.makedirs(empty, exist_ok=True)
        tls_lines = []
        if tls:
            # vsftpd's own cipher list (DES-CBC3-SHA) is one OpenSSL 3 no
            # longer offers; TLS 1.3 suites are not taken from it.
            tls_lines = ["ssl_enable=YES", "allow_anon_ssl=NO", "force_local_logins_ssl=YES",
                         "force_local_data_ssl=YES", "require_ssl_reuse=YES", "ssl_sslv2=NO",
                         "ssl_sslv3=NO", "ssl_tlsv1=YES", "ssl_ciphers=HIGH",
                         "ssl_request_cert=NO", "rsa_cert_file=%s" % tls[0],
                         "rsa_private_key_file=%s" % tls[1]]
        with open(self.conf, "w") as f:
            f.write("\n".join(tls_lines + [
                "listen=YES", "listen_ipv6=NO", "listen_address=127.0.0.1",
                "listen_port=%d" % self.port, "background=NO",
                "anonymous_enable=NO", "local_enable=YES", "write_enable=YES",
                "local_umask=022", "local_root=%s" % root,
                "chroot_local_user=YES", "allow_writeable_chroot=YES",
                "pam_service_name=vsftpd", "userlist_enable=NO", "tcp_wrappers=NO",
                "secure_chroot_dir=%s" % empty,
                "idle_session_timeout=120", "data_connection_timeout=120",
                "pasv_enable=YES", "port_enable=YES", "connect_from_port_20=NO",
                # Containers refuse the namespaces and the system-call filter
                # vsftpd would otherwise set up per session.
                "seccomp_sandbox=NO", "isolate=NO", "isolate_network=NO",
                "xferlog_enable=NO",
                "max_clients=%d" % clients, "max_per_ip=%d" % clients,
                "delay_failed_login=0", "delay_successful_login=0", ""]))
        os.chmod(self.conf, 0o600)
        self.proc = subprocess.Popen(["/usr/sbin/vsftpd", self.conf],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                     start_new_session=True)
        deadline = time.monotonic() + 10
        while True:
            if self.proc.poll() is not None:
                raise Failure("vsftpd did not start: %s" % self.proc.stderr.read().decode())
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=1) as s:
                    s.recv(100)
                break
            except OSError:
                if time.monotonic() > deadline:
                    raise Failure("vsftpd does not answer on port %d" % self.port)
                time.sleep(0.05)

    def url(self, path):
        # curl speaks explicit FTPS to an ftp:// URL with --ssl-reqd.
        return "ftp://%s:%s@127.0.0.1:%d/%s" % (USER, PASSWORD, self.port, path.lstrip("/"))

    def location(self):
        return "%s(%s)@%s://127.0.0.1:%d/" % (USER, PASSWORD, "ftps" if self.tls else "ftp",
                                              self.port)

    def family(self):
        """Pids of this server's processes: sessions are forks that keep the
        command line, which names this run's own configuration file."""
        pids = []
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open("/proc/%s/cmdline" % entry, "rb") as f:
                    words = f.read().split(b"\0")
            except OSError:
                continue
            if self.conf.encode() in words:
                pids.append(int(entry))
        return pids

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait(timeout=10)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            left = self.family()
            if not left:
                return
            for pid in left:
                try:
                    os.kill(pid, signal.SIGTERM)
                except OSError:
                    pass
            time.sleep(0.1)


def compare_files(a, b):
    with open(a, "rb") as fa, open(b, "rb") as fb:
        offset = 0
        while True:
            x = fa.read(MIB)
            y = fb.read(MIB)
            if x != y:
                return "differ near offset %d" % offset
            if not x:
                return None
            offset += len(x)


def chown_rec(path):
    import pwd
    entry = pwd.getpwnam(USER)
    os.chown(path, entry.pw_uid, entry.pw_gid)


class Bench:
    def __init__(self, args):
        self.args = args
        self.samples = {}  # row -> {"store": [...], "peer": [...]}
        self.curl_cut = 0  # curl's ftps uploads the server cut (426), made again

    def add(self, row, side, value):
        self.samples.setdefault(row, {}).setdefault(side, []).append(value)

    def check(self, what, reason):
        if reason is not None:
            raise Failure("%s: %s" % (what, reason))

    # --- the rows -----------------------------------------------------------

    def tcp(self, size_label, write_size):
        out, _ = timed([self.args.tcp, str(self.stream_bytes), str(write_size)])
        f = fields(out)
        if f.get("ok") != "1" or int(f["received"]) != self.stream_bytes:
            raise Failure("tcp %s: %s" % (size_label, out.strip()))
        self.add("tcp%s" % size_label, "store", self.stream_bytes / float(f["seconds"]))

    def store(self, *words, server=None):
        server = server or self.server
        argv = [self.args.store]
        if server.tls:
            argv += ["--ca", server.tls[0]]
        out, cpu = timed(argv + [server.location()] + list(words))
        f = fields(out)
        if f.get("ok") != "1":
            raise Failure("store %s: %s" % (" ".join(words), out.strip()))
        return f, cpu

    def curl(self, *words, server=None):
        server = server or self.server
        argv = ["curl", "-sS", "--fail", "-w", "%{time_total}"]
        if server.tls:
            # Explicit FTPS (AUTH TLS, then PROT P for the data), the server's
            # certificate checked against the same CA file as the store's.
            argv += ["--ssl-reqd", "--cacert", server.tls[0]]
        for attempt in range(3):
            try:
                out, cpu = timed(argv + list(words))
                break
            except Failure as error:
                # curl closes an upload's data connection at once; when vsftpd
                # sends its TLS 1.3 session tickets after that, the reset
                # costs it the unread end of the file and it answers 426
                # (curl's exit 18). Small uploads meet it; it is counted and
                # the upload made again.
                if not server.tls or " exited 18:" not in str(error) or attempt == 2:
                    raise
                self.curl_cut += 1
        return float(out.strip().splitlines()[-1]), cpu

    def stream_row(self, n):
        remote = "stream-store-%d.bin" % n
        f, cpu = self.store("stream", "/" + remote, str(self.stream_bytes))
        path = os.path.join(self.root, remote)
        self.check("stream " + remote, pattern.check_file(path, self.stream_bytes))
        os.unlink(path)
        self.add("stream", "store", self.stream_bytes / float(f["work"]))
        self.add("cpu", "store", cpu / (self.stream_bytes / GIB))

        # The transfer alone, on a pooled connection, for the comparison with
        # the bare TCP ceiling, which logs in nowhere.
        remote = "stream-warm-%d.bin" % n
        f, _ = self.store("stream", "/" + remote, str(self.stream_bytes), "warm")
        path = os.path.join(self.root, remote)
        self.check("stream " + remote, pattern.check_file(path, self.stream_bytes))
        os.unlink(path)
        os.unlink(path + ".warm")
        self.add("stream_work", "store", self.stream_bytes / float(f["work"]))

        remote = "stream-curl-%d.bin" % n
        seconds, cpu = self.curl("-T", self.source, self.server.url(remote))
        path = os.path.join(self.root, remote)
        self.check("curl -T " + remote, compare_files(self.source, path))
        os.unlink(path)
        self.add("stream", "peer", self.stream_bytes / seconds)
        self.add("cpu", "peer", cpu / (self.stream_bytes / GIB))

    def put_row(self, n):
        remote = "put-store-%d.bin" % n
        f, _ = self.store("put", self.source, "/" + remote)
        path = os.path.join(self.root, remote)
        self.check("Put " + remote, compare_files(self.source, path))
        os.unlink(path)
        self.add("put", "store", self.stream_bytes / float(f["work"]))

        remote = "put-curl-%d.bin" % n
        seconds, _ = self.curl("-T", self.source, self.server.url(remote))
        path = os.path.join(self.root, remote)
        self.check("curl -T " + remote, compare_files(self.source, path))
        os.unlink(path)
        self.add("put", "peer", self.stream_bytes / seconds)

    def get_row(self, n):
        local = os.path.join(self.local, "get-store-%d.bin" % n)
        f, _ = self.store("get", "/get-source.bin", local)
        self.check("Get", compare_files(self.get_source, local))
        os.unlink(local)
        self.add("get", "store", self.get_bytes / float(f["work"]))

        local = os.path.join(self.local, "get-curl-%d.bin" % n)
        seconds, _ = self.curl("-o", local, self.server.url("get-source.bin"))
        self.check("curl -o", compare_files(self.get_source, local))
        os.unlink(local)
        self.add("get", "peer", self.get_bytes / seconds)

    def tls_stream_row(self, n):
        server = self.tls_server
        remote = "tls-stream-store-%d.bin" % n
        f, cpu = self.store("stream", "/" + remote, str(self.stream_bytes), server=server)
        path = os.path.join(self.root, remote)
        self.check("ftps stream " + remote, pattern.check_file(path, self.stream_bytes))
        os.unlink(path)
        self.add("tls_stream", "store", self.stream_bytes / float(f["work"]))
        self.add("tls_cpu", "store", cpu / (self.stream_bytes / GIB))

        remote = "tls-stream-curl-%d.bin" % n
        seconds, cpu = self.curl("-T", self.source, server.url(remote), server=server)
        path = os.path.join(self.root, remote)
        self.check("curl --ssl-reqd -T " + remote, compare_files(self.source, path))
        os.unlink(path)
        self.add("tls_stream", "peer", self.stream_bytes / seconds)
        self.add("tls_cpu", "peer", cpu / (self.stream_bytes / GIB))

    def tls_put_row(self, n):
        server = self.tls_server
        remote = "tls-put-store-%d.bin" % n
        f, _ = self.store("put", self.source, "/" + remote, server=server)
        path = os.path.join(self.root, remote)
        self.check("ftps Put " + remote, compare_files(self.source, path))
        os.unlink(path)
        self.add("tls_put", "store", self.stream_bytes / float(f["work"]))

        remote = "tls-put-curl-%d.bin" % n
        seconds, _ = self.curl("-T", self.source, server.url(remote), server=server)
        path = os.path.join(self.root, remote)
        self.check("curl --ssl-reqd -T " + remote, compare_files(self.source, path))
        os.unlink(path)
        self.add("tls_put", "peer", self.stream_bytes / seconds)

    def tls_get_row(self, n):
        server = self.tls_server
        local = os.path.join(self.local, "tls-get-store-%d.bin" % n)
        f, cpu = self.store("get", "/get-source.bin", local, server=server)
        self.check("ftps Get", compare_files(self.get_source, local))
        os.unlink(local)
        self.add("tls_get", "store", self.get_bytes / float(f["work"]))
        self.add("tls_get_cpu", "store", cpu / (self.get_bytes / GIB))

        local = os.path.join(self.local, "tls-get-curl-%d.bin" % n)
        seconds, cpu = self.curl("-o", local, server.url("get-source.bin"), server=server)
        self.check("curl --ssl-reqd -o", compare_files(self.get_source, local))
        os.unlink(local)
        self.add("tls_get", "peer", self.get_bytes / seconds)
        self.add("tls_get_cpu", "peer", cpu / (self.get_bytes / GIB))

    def many_row(self, n):
        count, size = self.args.files, self.file_bytes
        for side in ("store", "peer"):
            folder = "many-%s-%d" % (side, n)
            os.mkdir(os.path.join(self.root, folder))
            chown_rec(os.path.join(self.root, folder))
            if side == "store":
                f, _ = self.store("many", "/" + folder, str(count), str(size))
            else:
                out, _ = timed([sys.executable, os.path.join(HERE, "ftplib_many.py"),
                                "127.0.0.1", str(self.server.port), USER, PASSWORD,
                                "/" + folder, str(count), str(size)])
                f = fields(out)
            for i in range(count):
                path = os.path.join(self.root, folder, "f%06d.bin" % i)
                self.check("many %s %s" % (side, path), pattern.check_file(path, size, i))
            shutil.rmtree(os.path.join(self.root, folder))
            self.add("many", side, count / float(f["work" if side == "store" else "seconds"]))

    def list_row(self, n):
        names_out = os.path.join(self.local, "names-%d.txt" % n)
        f, _ = self.store("list", "/list", names_out)
        with open(names_out) as got:
            names = got.read().split("\n")[:-1]
        os.unlink(names_out)
        if sorted(names) != self.list_names:
            raise Failure("getFileList gave %d names, not the %d made" %
                          (len(names), len(self.list_names)))
        self.add("list", "store", float(f["seconds"]))

        listing = os.path.join(self.local, "list-curl-%d.txt" % n)
        seconds, _ = self.curl("-o", listing, self.server.url("list/"))
        with open(listing, "rb") as got:
            # curl turns the CR LF line ends of an ASCII listing into LF.
            lines = [line.rstrip(b"\r") for line in got.read().split(b"\n") if line.strip()]
        os.unlink(listing)
        named = sorted(line.split()[-1].decode() for line in lines)
        if named != self.list_names:
            raise Failure("curl LIST gave %d lines, not the %d names made" %
                          (len(lines), len(self.list_names)))
        self.add("list", "peer", seconds)

    def handles_row(self, server=None, count=None, prefix=""):
        count = count or self.args.handles
        folder = prefix + "handles"
        os.mkdir(os.path.join(self.root, folder))
        chown_rec(os.path.join(self.root, folder))
        f, _ = self.store("handles", "/" + folder, str(count), server=server)
        made = len(os.listdir(os.path.join(self.root, folder)))
        if int(f["open"]) != count or made != count:
            raise Failure("%shandles: %s open, %d files made" % (prefix, f["open"], made))
        shutil.rmtree(os.path.join(self.root, folder))
        per_handle = (int(f["rss_open"]) - int(f["rss_idle"])) / count
        self.add(prefix + "rss_handle", "store", per_handle)
        self.add(prefix + "rss_idle", "store", int(f["rss_idle"]))
        self.add(prefix + "rss_idle_delta", "store", int(f["rss_idle"]) - int(f["rss_start"]))

    # --- the run ------------------------------------------------------------

    def prepare(self):
        a = self.args
        self.stream_bytes = a.stream_mib * MIB if not a.tiny else 1 * MIB
        self.get_bytes = a.get_mib * MIB if not a.tiny else 1 * MIB
        self.file_bytes = a.file_kib * 1024
        self.work = tempfile.mkdtemp(prefix="ftpdisk-peers-", dir="/dev/shm")
        os.chmod(self.work, 0o755)
        self.root = os.path.join(self.work, "root")
        self.local = os.path.join(self.work, "local")
        os.mkdir(self.root)
        os.mkdir(self.local)
        chown_rec(self.root)
        self.source = os.path.join(self.local, "source.bin")
        pattern.write_file(self.source, self.stream_bytes)
        self.get_source = os.path.join(self.root, "get-source.bin")
        pattern.write_file(self.get_source, self.get_bytes, 7)
        chown_rec(self.get_source)
        listdir = os.path.join(self.root, "list")
        os.mkdir(listdir)
        self.list_names = sorted("rec%08d.mp4" % i for i in range(a.list))
        for name in self.list_names:
            os.close(os.open(os.path.join(listdir, name), os.O_CREAT | os.O_WRONLY, 0o644))
        self.server = Vsftpd(self.work, self.root, max(64, a.handles + 16))
        self.tls_server = None
        if not a.no_tls:
            self.tls_server = Vsftpd(self.work, self.root, max(64, a.tls_handles + 16),
                                     tls=make_certificate(self.work))

    def measure(self):
        a = self.args
        for n in range(a.runs):
            print("peers: round %d of %d" % (n + 1, a.runs), file=sys.stderr, flush=True)
            self.tcp("8k", 8192)
            self.tcp("64k", 65536)
            self.stream_row(n)
            self.put_row(n)
            self.get_row(n)
            self.many_row(n)
            self.list_row(n)
            if self.tls_server:
                self.tls_stream_row(n)
                self.tls_put_row(n)
                self.tls_get_row(n)
        if a.handles > 0:
            # Once: every handle is a login, and the figure hardly moves.
            self.handles_row()
        if self.tls_server and a.tls_handles > 0:
            self.handles_row(self.tls_server, a.tls_handles, "tls_")

    def cleanup(self):
        for name in ("server", "tls_server"):
            server = getattr(self, name, None)
            if server is not None:
                server.stop()
        work = getattr(self, "work", None)
        if work is not None:
            shutil.rmtree(work, ignore_errors=True)

    # --- the table ----------------------------------------------------------

    def table(self):
        a = self.args
        s = self.samples

        def med(row, side):
            return statistics.median(s[row][side])

        def rng(row, side, scale, fmt):
            values = s[row][side]
            return (fmt % (min(values) / scale)) + " - " + (fmt % (max(values) / scale))

        def cell(row, side, scale, fmt):
            return "%s (%s)" % (fmt % (med(row, side) / scale), rng(row, side, scale, fmt))

        mb = 1e6
        lines = [
            "| work | ftpdisk median (range) | peer median (range) | ratio median (range) |",
            "|---|---|---|---|",
        ]

        def row(label, key, scale, fmt, unit, peer_label, higher_better=True):
            store_cell = cell(key, "store", scale, fmt) + " " + unit
            peer_cell = peer_label + " " + cell(key, "peer", scale, fmt) + " " + unit
            # Each round's store figure against the peer's right after it, then
            # the median of those: a machine whose load drifts during the run
            # moves both figures of a round alike.
            ratios = [a / b for a, b in zip(s[key]["store"], s[key]["peer"])]
            lines.append("| %s | %s | %s | %.2f (%.2f - %.2f) |" %
                         (label, store_cell, peer_cell, statistics.median(ratios), min(ratios),
                          max(ratios)))

        size = "%d MiB" % (self.stream_bytes // MIB)
        row("stream %s (open, 64 KiB writes, close)" % size, "stream", mb, "%.0f", "MB/s",
            "curl -T")
        row("`Put` %s" % size, "put", mb, "%.0f", "MB/s", "curl -T")
        row("`Get` %d MiB into a tmpfs file" % (self.get_bytes // MIB), "get", mb, "%.0f",
            "MB/s", "curl -o tmpfs file")
        row("%d files of %d KiB (open, write, close; pooled)" % (a.files, a.file_kib), "many",
            1, "%.0f", "files/s", "ftplib, one connection, STOR loop")
        row("`getFileList` of a directory of %d files" % a.list, "list", 1, "%.3f", "s",
            "curl LIST")
        row("CPU seconds per GiB written (stream)", "cpu", 1, "%.2f", "s", "curl -T")
        for key, label in (("tcp8k", "8 KiB"), ("tcp64k", "64 KiB")):
            lines.append("| loopback TCP ceiling, %s writes | %s MB/s | | |" %
                         (label, cell(key, "store", mb, "%.0f")))
        ratios = [a / b for a, b in zip(s["stream_work"]["store"], s["tcp64k"]["store"])]
        lines.append("| stream on a pooled connection, against the 64 KiB ceiling | %s MB/s | | "
                     "%.2f (%.2f - %.2f) |" % (cell("stream_work", "store", mb, "%.0f"),
                                               statistics.median(ratios), min(ratios), max(ratios)))
        if "rss_handle" in s:
            lines.append("| RSS per open handle (%d open) | %s KiB | | |" %
                         (a.handles, cell("rss_handle", "store", 1024, "%.1f")))
            lines.append("| RSS of the process with one idle store | %s KiB | | |" %
                         cell("rss_idle", "store", 1024, "%.0f"))
            lines.append("| RSS added by registering and initialising it | %s KiB | | |" %
                         cell("rss_idle_delta", "store", 1024, "%.0f"))
        if "tls_stream" in s:
            row("ftps stream %s (open, 64 KiB writes, close)" % size, "tls_stream", mb, "%.0f",
                "MB/s", "curl --ssl-reqd -T")
            row("ftps `Put` %s" % size, "tls_put", mb, "%.0f", "MB/s", "curl --ssl-reqd -T")
            row("ftps `Get` %d MiB into a tmpfs file" % (self.get_bytes // MIB), "tls_get", mb,
                "%.0f", "MB/s", "curl --ssl-reqd -o tmpfs file")
            row("ftps CPU seconds per GiB written (stream)", "tls_cpu", 1, "%.2f", "s",
                "curl --ssl-reqd -T")
            row("ftps CPU seconds per GiB read (`Get`)", "tls_get_cpu", 1, "%.2f", "s",
                "curl --ssl-reqd -o")
        if "tls_rss_handle" in s:
            lines.append("| RSS per open ftps handle (%d open) | %s KiB | | |" %
                         (a.tls_handles, cell("tls_rss_handle", "store", 1024, "%.1f")))
            lines.append("| RSS added by registering and initialising an ftps store | %s KiB | | |"
                         % cell("tls_rss_idle_delta", "store", 1024, "%.0f"))
        return "\n".join(lines)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--store", required=True, help="ftpdisk_peers_store program")
    p.add_argument("--tcp", required=True, help="ftpdisk_peers_tcp program")
    p.add_argument("--runs", type=int, default=3)
    p.add_argument("--stream-mib", type=int, default=512)
    p.add_argument("--get-mib", type=int, default=256)
    p.add_argument("--files", type=int, default=500)
    p.add_argument("--file-kib", type=int, default=64)
    p.add_argument("--list", type=int, default=100000)
    p.add_argument("--handles", type=int, default=1000)
    p.add_argument("--tls-handles", type=int, default=300,
                   help="ftps handles open at once for the memory figure")
    p.add_argument("--no-tls", action="store_true",
                   help="leave out the ftps rows (a build without FTPDISK_TLS)")
    p.add_argument("--tiny", action="store_true",
                   help="one round on tiny inputs: checks the bytes, not the speed")
    p.add_argument("--json", help="write every sample here")
    p.add_argument("--serve", type=int, metavar="SECONDS",
                   help="only prepare the files and serve them for this long (at most 3600 s), "
                        "for profiling one side by hand")
    args = p.parse_args()
    if args.tiny:
        args.runs, args.files, args.list, args.handles, args.tls_handles = 1, 5, 300, 5, 5
    if os.geteuid() != 0:
        print("peers: vsftpd needs root", file=sys.stderr)
        return 1
    for tool in ("curl", "/usr/sbin/vsftpd") + (() if args.no_tls else ("openssl",)):
        if shutil.which(tool) is None:
            print("peers: %s is missing (scripts/install-deps.sh installs it)" % tool,
                  file=sys.stderr)
            return 1
    bench = Bench(args)

    def interrupted(signum, frame):
        raise KeyboardInterrupt()

    # A terminated run still stops its server and removes its files.
    signal.signal(signal.SIGTERM, interrupted)
    try:
        bench.prepare()
        if args.serve is not None:
            print("peers: serving %s (root %s, local files %s) for %d s" %
                  (bench.server.location(), bench.root, bench.local, min(args.serve, 3600)),
                  flush=True)
            if bench.tls_server:
                print("peers: and %s, its certificate %s" %
                      (bench.tls_server.location(), bench.tls_server.tls[0]), flush=True)
            time.sleep(min(args.serve, 3600))
            return 0
        bench.measure()
    except Failure as e:
        print("peers: FAILED: %s" % e, file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("peers: interrupted", file=sys.stderr)
        return 130
    finally:
        bench.cleanup()
    print(bench.table())
    if bench.curl_cut:
        print("peers: %d of curl's ftps uploads were cut by the server (426 after a reset) and "
              "made again" % bench.curl_cut)
    if args.json:
        with open(args.json, "w") as f:
            json.dump(bench.samples, f, indent=1)
    print("peers: every byte checked", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
