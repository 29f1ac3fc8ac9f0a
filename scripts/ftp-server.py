#!/usr/bin/python3
"""Runs one pyftpdlib FTP server on 127.0.0.1 for the ftpdisk tests.

One user with full rights in one root folder; passive data connections on
loopback; an idle limit after which the server closes a quiet control
connection. The port actually bound is written to --port-file (written to a
temporary name and renamed, so a reader never sees half of it) once the
server listens. The server's own log (every command and reply) goes to
--log-file. SIGTERM ends the server and every session; SIGUSR1 closes every
session (control and data connections) at once and keeps listening, the way
a server ends connections it considers idle.

    /usr/bin/python3 scripts/ftp-server.py --root /tmp/x/home --port 0 \
        --port-file /tmp/x/port --user rec --password pw --idle-timeout 300 \
        [--max-clients N]

--max-clients N grants at most N control connections at once; a further one
is greeted with "421 Too many connections from the same IP address." and
closed.

--tls-certificate FILE (a PEM file holding the certificate and its key)
makes the server speak explicit TLS ("AUTH TLS") and require it: the login
is refused before AUTH TLS, data commands before "PROT P"; TLS 1.2 at least.
It needs pyOpenSSL (Debian's python3-openssl).

--passive-ports FIRST-LAST announces passive data ports from that range only.

Runs with Debian's Python (python3-pyftpdlib), not any other interpreter.
"""

import argparse
import logging
import os
import signal
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer


class TestHandler(FTPHandler):
    """Handler class of this server alone, so its settings stay local."""


def make_tls_handler(certificate):
    """A handler class that requires TLS on control and data connections."""
    from OpenSSL import SSL
    from pyftpdlib.handlers import TLS_DTPHandler, TLS_FTPHandler

    class TestTlsDtpHandler(TLS_DTPHandler):
        """Data handler of this server alone (its idle limit is set here)."""

    class TestTlsHandler(TLS_FTPHandler):
        """TLS handler class of this server alone."""

    context = SSL.Context(SSL.TLS_SERVER_METHOD)
    context.set_min_proto_version(SSL.TLS1_2_VERSION)
    context.set_options(SSL.OP_NO_COMPRESSION)
    context.use_certificate_chain_file(certificate)
    context.use_privatekey_file(certificate)
    TestTlsHandler.ssl_context = context
    TestTlsHandler.certfile = certificate
    TestTlsHandler.tls_control_required = True
    TestTlsHandler.tls_data_required = True
    TestTlsHandler.dtp_handler = TestTlsDtpHandler
    return TestTlsHandler


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--root", required=True)
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--user", default="rec")
    parser.add_argument("--password", default="pw")
    parser.add_argument("--idle-timeout", type=int, default=300)
    parser.add_argument("--log-file", default=None)
    parser.add_argument("--max-clients", type=int, default=0)
    parser.add_argument("--tls-certificate", default=None)
    parser.add_argument("--passive-ports", default=None)
    args = parser.parse_args()

    logging.basicConfig(
        filename=args.log_file,
        level=logging.DEBUG,
        format="%(asctime)s %(message)s",
    )

    authorizer = DummyAuthorizer()
    # e l r a d f m w M T: every right, writes included.
    authorizer.add_user(args.user, args.password, args.root, perm="elradfmwMT")

    handler = TestHandler
    if args.tls_certificate:
        handler = make_tls_handler(args.tls_certificate)

    handler.authorizer = authorizer
    handler.timeout = args.idle_timeout
    # A stalled data connection is ended after the same time.
    handler.dtp_handler.timeout = args.idle_timeout
    handler.banner = "ftpdisk test server ready."
    if args.passive_ports:
        first, last = (int(x) for x in args.passive_ports.split("-"))
        handler.passive_ports = list(range(first, last + 1))
    # pyftpdlib answers a refused login only after 3 s by default, the whole
    # of the module's readiness wait, so that a wrong password would read as
    # a server that did not reply (docs/INTEGRATION.md says so); the tests'
    # server answers within the wait.
    handler.auth_failed_timeout = 0.5

    server = FTPServer(("127.0.0.1", args.port), handler)
    if args.max_clients > 0:
        # Every client comes from one address here; the total limit would
        # count data connections and the listening socket too, so it is
        # lifted and the per-address limit does the refusing.
        server.max_cons = 0
        server.max_cons_per_ip = args.max_clients
    else:
        server.max_cons = 64

    def stop(signum, frame):
        server.close_all()
        sys.exit(0)

    def drop_sessions():
        for handler in list(server.ioloop.socket_map.values()):
            if handler is not server:
                handler.close()

    def close_sessions(signum, frame):
        # Sockets are closed from the loop, not from inside the signal
        # handler, which may interrupt the loop at any point.
        server.ioloop.call_later(0, drop_sessions)

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGUSR1, close_sessions)
    signal.signal(signal.SIGINT, stop)

    port = server.socket.getsockname()[1]
    temporary = args.port_file + ".tmp"
    with open(temporary, "w") as out:
        out.write("%d\n" % port)
    os.rename(temporary, args.port_file)

    # A bounded poll lets scheduled work (the idle limit above all) run on
    # time even while no socket is active.
    server.serve_forever(timeout=0.2, handle_exit=False)


if __name__ == "__main__":
    main()
