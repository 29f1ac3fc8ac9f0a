// RealFtpServer: one real FTP server of a given kind, started for a test on a
// free 127.0.0.1 port with a fresh temporary root folder and one user
// "rec" / "pw" who may read and write everything below that root.
//
// The object owns the server's processes and its temporary folder: the
// destructor ends every process of the server (sessions included), reaps
// them and deletes the folder. Starting never throws and never skips: when a
// server cannot start, ready() is false and failure() says why, and the test
// is expected to fail on it (ASSERT_TRUE(server.ready()) << server.failure()).
// One thread uses an object; separate objects are independent and may run in
// parallel test processes.
//
// Kinds: pyftpdlib (scripts/ftp-server.py under Debian's /usr/bin/python3),
// vsftpd (installed, local user rec), proftpd and pure-ftpd (unpacked by
// scripts/install-deps.sh into FTPDISK_SERVERS_DIR, default
// /opt/ftpdisk-servers, with their own password files), and BusyBox's ftpd
// under its tcpsvd (built by the same script into FTPDISK_SERVERS_DIR/busybox;
// local user rec). The daemons need root.
//
// With RealFtpServerOptions::tls the four kinds that can (not BusyBox) speak
// explicit TLS and require it before the login and on every data connection.
// The certificate is made for the test by the `openssl` command: a private
// CA (caFile()) that signs a server certificate for the IP address 127.0.0.1
// (its SHA-256 fingerprint is fingerprint()). What each kind needs:
//   pyftpdlib  TLS_FTPHandler with tls_control_required and tls_data_required,
//              TLS 1.2 at least (needs pyOpenSSL, Debian's python3-openssl)
//   vsftpd     ssl_enable, force_local_logins_ssl, force_local_data_ssl and
//              require_ssl_reuse (a data connection must resume the control
//              connection's TLS session)
//   proftpd    mod_tls (a loadable module of Debian's proftpd-mod-crypto,
//              unpacked next to proftpd-core) with TLSRequired on and
//              TLSProtocol TLSv1.2 TLSv1.3; it requires session reuse on data
//              connections by default
//   pure-ftpd  -Y 3 (TLS for the login and for data) with the certificate and
//              key in one file (-2)
#ifndef FTPDISK_TESTS_SUPPORT_REALFTPSERVER_H
#define FTPDISK_TESTS_SUPPORT_REALFTPSERVER_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

enum class FtpServerKind { kPyftpdlib, kVsftpd, kProftpd, kPureftpd, kBusybox };

// "pyftpdlib", "vsftpd", "proftpd", "pureftpd", "busybox": usable in test
// names.
const char* ftpServerKindName(FtpServerKind kind);

// Every kind, in a fixed order, for parameterised tests.
std::vector<FtpServerKind> allFtpServerKinds();

struct RealFtpServerOptions {
    // Seconds after which the server closes a control connection that sent
    // nothing. pure-ftpd counts in whole minutes and gets the rounded-up value.
    int idleTimeoutSeconds = 300;
    // Control connections the server grants at once, all of them coming
    // from 127.0.0.1; 0 keeps each kind's usual setting (vsftpd and proftpd
    // 64, pyftpdlib 64 sockets with data connections counted, pure-ftpd its
    // built-in 50, BusyBox's tcpsvd 30 with later ones left waiting). Every
    // kind honours it through its limit per client address (the total limit
    // is raised above it) and answers the connection past it at once:
    //   pyftpdlib  max_cons_per_ip: "421 Too many connections from the same
    //              IP address." as its greeting
    //   vsftpd     max_per_ip: "421 There are too many connections from your
    //              internet address."
    //   proftpd    MaxClientsPerHost: greets with 220, then answers the
    //              password with "530 Sorry, the maximum number of clients (N)
    //              from your host are already connected."
    //   pure-ftpd  -C: "421 Too many connections (N) from this IP"
    //   busybox    tcpsvd -C: "421 Too many connections from this address"
    int maxClients = 0;
    // Explicit TLS, required for the login and for data (see above). BusyBox
    // has none: asking it of busybox fails the start.
    bool tls = false;
    // Passive data ports the server announces, first..last (both 0: any).
    // pyftpdlib and vsftpd only; a test that puts a proxy in front of a TLS
    // server (which cannot read the 227 replies) listens on them.
    int passivePortFirst = 0;
    int passivePortLast = 0;
    // Another password for rec than "pw" (at most 19 characters, the
    // module's limit), for tests that look for it in captured traffic.
    // pyftpdlib only: the daemons check their fixed password files.
    std::string password;
};

class RealFtpServer {
public:
    // Starts the server and waits until it accepts a connection and greets
    // with a 220 reply: at most 10 s per try, three tries with fresh ports
    // (another process may take a port between choosing and binding it).
    explicit RealFtpServer(FtpServerKind kind,
                           RealFtpServerOptions options = RealFtpServerOptions());
    ~RealFtpServer();

    RealFtpServer(const RealFtpServer&) = delete;
    RealFtpServer& operator=(const RealFtpServer&) = delete;

    // True once the server has greeted; false with failure() telling why
    // (including the tail of the server's own log) otherwise.
    bool ready() const { return ready_; }
    const std::string& failure() const { return failure_; }

    FtpServerKind kind() const { return kind_; }
    const char* name() const { return ftpServerKindName(kind_); }

    // The listening port; 0 when not ready.
    int port() const { return port_; }
    static const char* user() { return "rec"; }
    static const char* password() { return "pw"; }
    // The password this server accepts: RealFtpServerOptions::password when
    // given, else password().
    std::string passwordInUse() const {
        return options_.password.empty() ? password() : options_.password;
    }

    // "127.0.0.1:<port>": the server text FTPTool::connect takes.
    std::string hostPort() const;
    // "rec(pw)@ftp://127.0.0.1:<port>" followed by `path` (which should start
    // with '/' when given): the location text of the registry; "ftps://" for
    // a TLS server, and passwordInUse() in place of "pw".
    std::string location(const std::string& path = std::string()) const;

    // TLS servers only (empty otherwise): the PEM file of the private CA that
    // signed the server's certificate, the server certificate itself, and
    // the SHA-256 fingerprint of that certificate as "AB:CD:..." (32 bytes in
    // upper-case hex pairs).
    bool tls() const { return options_.tls; }
    const std::string& caFile() const { return caFile_; }
    const std::string& certificateFile() const { return certFile_; }
    const std::string& fingerprint() const { return fingerprint_; }

    // Local folder that the FTP user sees as "/". Tests check the bytes the
    // module stored by reading below it.
    const std::string& root() const { return root_; }
    // root() + "/" + relative, for a path given as the FTP user sees it
    // (leading slashes are ignored).
    std::string localPath(const std::string& ftpPath) const;

    // Files below root(), for checks and for preparing content. Files written
    // here get the FTP user's owner so that the server may change them.
    bool fileExists(const std::string& ftpPath) const;
    bool dirExists(const std::string& ftpPath) const;
    // The whole file into *bytes; false, with *bytes untouched, when it
    // cannot be read.
    bool readFile(const std::string& ftpPath, std::string* bytes) const;
    bool writeFile(const std::string& ftpPath, const std::string& bytes) const;
    bool makeDir(const std::string& ftpPath) const;

    // Control connections the server side currently holds open (TCP state
    // ESTABLISHED on the listening port, as the kernel shows it).
    int sessionCount() const;
    // Polls sessionCount() until it equals `count` or `limit` passes; returns
    // whether it got there.
    bool waitForSessionCount(int count, std::chrono::milliseconds limit) const;

    // Ends every session from the server's side now (their processes for the
    // daemons, every connection for pyftpdlib) while the server keeps
    // listening, as a server does with connections it finds idle; waits (at
    // most 5 s) until none is left. This is how tests make pure-ftpd drop a
    // session quickly: its idle limit cannot be shorter than a minute.
    bool closeSessions();

    // Tail of the server's own log, for failure messages.
    std::string logTail(size_t maxBytes = 4000) const;

    // The server's process and its session processes as they are now; empty
    // once stopped.
    std::vector<pid_t> processes() const;

    // Ends the server and its sessions now (the destructor does it too).
    void stop();

private:
    bool start();
    bool startPyftpdlib();
    bool startVsftpd();
    bool startProftpd();
    bool startPureftpd();
    bool startBusybox();
    bool makeCertificate();
    bool spawn(const std::vector<std::string>& argv);
    bool waitForGreeting(std::chrono::milliseconds limit);
    bool fail(const std::string& why);

    FtpServerKind kind_;
    RealFtpServerOptions options_;
    bool ready_ = false;
    std::string failure_;
    int port_ = 0;
    std::string dir_;      // temporary folder of everything below
    std::string root_;     // dir_ + "/home"
    std::string logFile_;  // the server's own log
    std::string outFile_;  // its standard output and error
    std::string caFile_;       // TLS: the CA's certificate
    std::string certFile_;     // TLS: the server's certificate
    std::string keyFile_;      // TLS: its private key
    std::string certKeyFile_;  // TLS: both in one file (pure-ftpd, pyftpdlib)
    std::string fingerprint_;  // TLS: SHA-256 of certFile_, "AB:CD:..."
    pid_t pid_ = -1;       // the process we started; leads its process group
    uid_t uid_ = 0;        // owner given to root_ and to files written here
    gid_t gid_ = 0;
};

#endif  // FTPDISK_TESTS_SUPPORT_REALFTPSERVER_H
