// The ftpdisk command with ftps:// locations, run as its own process: the TLS
// options and their usage errors, and check, ls, put and get against a
// pyftpdlib server that requires explicit TLS on 127.0.0.1 (its certificate
// signed by a private CA for 127.0.0.1, tests/support/RealFtpServer.h).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ToolRunner.h"
#include "support/RealFtpServer.h"
#include "support/TestHelpers.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(line);
    }
    return out;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// How many lines of `text` start with `start`.
int linesStartingWith(const std::string& text, const std::string& start) {
    int count = 0;
    for (const std::string& line : lines(text)) {
        if (line.rfind(start, 0) == 0) ++count;
    }
    return count;
}

// The line of `text` that starts with `start`, or "".
std::string lineStartingWith(const std::string& text, const std::string& start) {
    for (const std::string& line : lines(text)) {
        if (line.rfind(start, 0) == 0) return line;
    }
    return "";
}

std::string words(const std::vector<std::string>& args) {
    std::string all;
    for (const std::string& a : args) all += a + " ";
    return all;
}

// A folder of the test's own for the command's HOME and local files.
class WorkFolder {
public:
    WorkFolder() {
        char pattern[] = "/tmp/ftpdisk-tls-tool-test-XXXXXX";
        if (::mkdtemp(pattern) != nullptr) path_ = pattern;
    }
    ~WorkFolder() {
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// --- the options, without a server ------------------------------------------

const char* const kCommands[] = {"check", "ls",  "du",  "df",  "mkdir", "rm",
                                 "mv",    "put", "get", "cat", "record"};

// Enough positional arguments for each command after its location.
std::vector<std::string> argumentsOf(const std::string& command, const std::string& location) {
    std::vector<std::string> args = {command, location};
    if (command == "mkdir" || command == "rm" || command == "get" || command == "cat") {
        args.push_back("x");
    } else if (command == "mv" || command == "put") {
        args.push_back("a");
        args.push_back("b");
    }
    return args;
}

TEST(ToolTlsOptions, EveryCommandTakesThemAndRefusesThemForAPlainLocation) {
    WorkFolder work;
    for (const char* command : kCommands) {
        for (const std::vector<std::string>& option : std::vector<std::vector<std::string>>{
                 {"--tls-insecure"},
                 {"--tls-fingerprint", std::string(64, 'a')},
                 {"--ca-file", "/etc/ssl/certs/ca-certificates.crt"}}) {
            std::vector<std::string> args = argumentsOf(command, "rec(pw)@ftp://127.0.0.1:1/x");
            args.insert(args.begin() + 1, option.begin(), option.end());
            const ToolRun result = runTool(args, work.path(), std::chrono::seconds(30));
            EXPECT_EQ(2, result.status) << words(args) << "\n" << result.transcript();
            EXPECT_EQ("ftpdisk " + std::string(command) + ": " + option[0] +
                          " is for ftps:// locations only, and rec(***)@ftp://127.0.0.1:1/x is "
                          "not one (see ftpdisk " +
                          command + " --help)",
                      result.err.substr(0, result.err.find('\n')))
                << words(args);
            EXPECT_EQ(1u, lines(result.err).size()) << words(args) << "\n" << result.transcript();
            EXPECT_EQ("", result.out) << words(args);
        }
    }
}

TEST(ToolTlsOptions, HelpOfEveryCommandNamesThem) {
    for (const char* command : kCommands) {
        const ToolRun result = runTool({command, "--help"});
        EXPECT_EQ(0, result.status) << result.transcript();
        EXPECT_TRUE(contains(result.out, "[TLS-OPTIONS] LOCATION")) << command;
        EXPECT_TRUE(contains(result.out, "user@ftps://server[:port]/path")) << command;
        for (const char* option :
             {"--tls-fingerprint SHA256", "--ca-file FILE", "--tls-insecure"}) {
            EXPECT_TRUE(contains(result.out, std::string("\n  ") + option))
                << command << " " << option;
        }
    }
}

TEST(ToolTlsOptions, MistakesAreUsageErrorsBeforeAnythingIsSent) {
    WorkFolder work;
    // Port 1 has no server: any attempt to connect would fail with status 1.
    const std::string ftps = "rec(pw)@ftps://127.0.0.1:1/x";
    const struct {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{"check", ftps, "--tls-fingerprint", "AB:CD"},
         "ftpdisk check: --tls-fingerprint takes the SHA-256 fingerprint of the server's "
         "certificate, 64 hexadecimal digits with or without colons between pairs (as ftpdisk "
         "check prints it), not \"AB:CD\" (see ftpdisk check --help)"},
        {{"ls", ftps, "--tls-fingerprint=" + std::string(63, 'a') + "g"},
         "ftpdisk ls: --tls-fingerprint takes the SHA-256 fingerprint"},
        {{"ls", ftps, "--tls-fingerprint"}, "ftpdisk ls: option --tls-fingerprint needs a value"},
        {{"put", ftps, "--tls-insecure", "--ca-file", "ca.pem", "a"},
         "ftpdisk put: --tls-fingerprint, --ca-file and --tls-insecure each replace the others: "
         "give one (see ftpdisk put --help)"},
        {{"record", ftps, "--tls-fingerprint", std::string(64, 'a'), "--tls-insecure"},
         "ftpdisk record: --tls-fingerprint, --ca-file and --tls-insecure each replace the "
         "others"},
        {{"df", ftps, "--ca-file="}, "ftpdisk df: --ca-file needs a file name"},
        // Found before the password is looked for: there is none here.
        {{"ls", "rec@ftps://127.0.0.1:1/x", "--tls-fingerprint", "xyz"},
         "ftpdisk ls: --tls-fingerprint takes the SHA-256 fingerprint"},
    };
    for (const auto& c : cases) {
        const ToolRun result = runTool(c.args, work.path(), std::chrono::seconds(30));
        EXPECT_EQ(2, result.status) << words(c.args) << "\n" << result.transcript();
        EXPECT_EQ(0u, result.err.rfind(c.message, 0)) << words(c.args) << "\n"
                                                      << result.transcript();
        EXPECT_EQ(1u, lines(result.err).size()) << words(c.args) << "\n" << result.transcript();
        EXPECT_EQ("", result.out) << words(c.args);
    }
}

TEST(ToolTlsOptions, ACaFileThatCannotBeReadFailsWithTheModulesReason) {
    WorkFolder work;
    const std::string notPem = work.path() + "/not-a-certificate.pem";
    std::ofstream(notPem) << "hello\n";
    for (const std::string& file : {work.path() + "/missing.pem", notPem}) {
        const ToolRun result = runTool({"ls", "--ca-file", file, "rec(pw)@ftps://127.0.0.1:1/x"},
                                       work.path(), std::chrono::seconds(30));
        EXPECT_EQ(1, result.status) << file << "\n" << result.transcript();
        EXPECT_EQ(0u, result.err.rfind("ftpdisk ls: cannot read the CA file " + file + ": ", 0))
            << result.transcript();
        EXPECT_EQ(1u, lines(result.err).size()) << result.transcript();
        EXPECT_EQ("", result.out);
    }
}

// --- against a server that requires TLS ---------------------------------------

// One pyftpdlib server with TLS for the suite; every test works below a base
// directory of its own, named after the test.
class ToolOverTls : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        RealFtpServerOptions options;
        options.tls = true;
        server_ = new RealFtpServer(FtpServerKind::kPyftpdlib, options);
    }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }

    void SetUp() override {
        ASSERT_TRUE(server_->ready()) << server_->failure();
        ASSERT_FALSE(work_.path().empty());
        base_ = std::string("/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        ASSERT_TRUE(server_->makeDir(base_)) << base_;
    }

    RealFtpServer& server() { return *server_; }
    // "rec(pw)@ftps://127.0.0.1:<port>/<test name>"
    std::string location() const { return server_->location(base_); }
    std::string masked() const { return "rec(***)@ftps://" + server_->hostPort() + base_; }

    // A run whose output must never show the password "pw" of the location.
    ToolRun run(const std::vector<std::string>& args) {
        ToolRun result = runTool(args, work_.path(), std::chrono::seconds(120));
        EXPECT_FALSE(result.timedOut) << result.transcript();
        EXPECT_FALSE(contains(result.out + result.err, "(pw)")) << result.transcript();
        return result;
    }

    // How often the server's log has recorded a command line starting with
    // `command` so far.
    int commandsLogged(const std::string& command) const {
        const std::string log = server_->logTail(1u << 30);
        const std::string needle = "<- " + command;
        int count = 0;
        for (std::string::size_type at = log.find(needle); at != std::string::npos;
             at = log.find(needle, at + 1)) {
            ++count;
        }
        return count;
    }

    static RealFtpServer* server_;
    WorkFolder work_;
    std::string base_;
};

RealFtpServer* ToolOverTls::server_ = nullptr;

// "  ok    tls          2.57 ms  TLSv1.3 TLS_AES_256_GCM_SHA384, certificate check: <how>"
void expectTlsStep(const std::string& out, const std::string& how) {
    const std::string step = lineStartingWith(out, "  ok    tls ");
    EXPECT_TRUE(std::regex_search(
        step, std::regex(" ms  TLSv1\\.[23] [A-Z0-9_-]+, certificate check: " + how + "$")))
        << out;
}

// The certificate's lines below the tls step.
void expectCertificate(const std::string& out, const std::string& fingerprint) {
    const std::string indent(30, ' ');
    EXPECT_TRUE(contains(out, "\n" + indent + "subject   CN=127.0.0.1\n")) << out;
    EXPECT_TRUE(contains(out, "\n" + indent + "issuer    CN=ftpdisk test CA\n")) << out;
    EXPECT_TRUE(std::regex_search(
        out, std::regex("\n {30}valid     from [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} 20[0-9]{2} GMT to "
                        "[A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} 20[0-9]{2} GMT\n")))
        << out;
    EXPECT_TRUE(contains(out, "\n" + indent + "SHA-256   " + fingerprint + "\n")) << out;
}

TEST_F(ToolOverTls, CheckWithThePinnedFingerprintPassesAndShowsTheCertificate) {
    const ToolRun result = run({"check", "--tls-fingerprint", server().fingerprint(), location()});
    EXPECT_EQ(0, result.status) << result.transcript();
    EXPECT_EQ(0u, result.out.rfind("checking " + masked() + "\n", 0)) << result.transcript();
    EXPECT_EQ(1, linesStartingWith(result.out, "  ok    init ")) << result.transcript();
    expectTlsStep(result.out, "pinned SHA-256 fingerprint");
    expectCertificate(result.out, server().fingerprint());
    // The data step lists through a TLS data connection.
    EXPECT_EQ(1, linesStartingWith(result.out, "  ok    data ")) << result.transcript();
    EXPECT_EQ(0, linesStartingWith(result.out, "warning:")) << result.transcript();
    EXPECT_TRUE(contains(result.out, "verdict: PASS: " + masked() +
                                         " can hold recordings (13 of 13 steps passed)\n"))
        << result.transcript();
    EXPECT_EQ("", result.err);
    // The pin takes any case and no colons as well.
    std::string bare;
    for (char c : server().fingerprint()) {
        if (c != ':') bare += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    const ToolRun lower = run({"ls", location(), "--tls-fingerprint=" + bare});
    EXPECT_EQ(0, lower.status) << lower.transcript();
}

TEST_F(ToolOverTls, CheckWithTheCaFilePassesAndSaysWhichCheckPassed) {
    const ToolRun result = run({"check", location(), "--ca-file", server().caFile()});
    EXPECT_EQ(0, result.status) << result.transcript();
    expectTlsStep(result.out, "trust store with added CA files and server name");
    expectCertificate(result.out, server().fingerprint());
    EXPECT_TRUE(contains(result.out, "verdict: PASS: ")) << result.transcript();
}

TEST_F(ToolOverTls, CheckWithoutTrustFailsAtInitWithTheFingerprintAndSendsNoLogin) {
    const int authBefore = commandsLogged("AUTH TLS");
    const int userBefore = commandsLogged("USER");
    const int passBefore = commandsLogged("PASS");
    const ToolRun result = run({"check", location()});
    EXPECT_EQ(1, result.status) << result.transcript();
    const std::string init = lineStartingWith(result.out, "  FAIL  init ");
    EXPECT_TRUE(contains(init, " ms  no secure connection to " + server().hostPort() +
                                   ": TLS certificate not trusted: "))
        << result.transcript();
    EXPECT_TRUE(contains(init, "; SHA-256 fingerprint " + server().fingerprint()))
        << result.transcript();
    // The certificate as the server showed it, looked at without logging in.
    EXPECT_TRUE(contains(lineStartingWith(result.out, "  FAIL  tls "),
                         "the certificate the server showed, not trusted:"))
        << result.transcript();
    expectCertificate(result.out, server().fingerprint());
    EXPECT_EQ(
        "hint: once you know this certificate is the server's own, trust it with "
        "--tls-fingerprint " +
            server().fingerprint() + ", or give --ca-file with the CA certificate that signed it",
        lineStartingWith(result.out, "hint: "))
        << result.transcript();
    EXPECT_EQ(1, linesStartingWith(result.out, "  skip  data ")) << result.transcript();
    // Only the registration went through.
    EXPECT_EQ(1, linesStartingWith(result.out, "  ok    ")) << result.transcript();
    EXPECT_EQ(1, linesStartingWith(result.out, "  ok    register ")) << result.transcript();
    EXPECT_TRUE(contains(result.out, "verdict: FAIL: " + masked() + " is not usable: ") &&
                contains(result.out, "first failure: init (no secure connection"))
        << result.transcript();
    // The store's init and the look each asked for TLS; neither sent a user
    // name or a password.
    EXPECT_EQ(authBefore + 2, commandsLogged("AUTH TLS")) << server().logTail();
    EXPECT_EQ(userBefore, commandsLogged("USER")) << server().logTail();
    EXPECT_EQ(passBefore, commandsLogged("PASS")) << server().logTail();
}

TEST_F(ToolOverTls, OtherCommandsFailOnAnUntrustedCertificateWithItsFingerprint) {
    const ToolRun result = run({"ls", location()});
    EXPECT_EQ(1, result.status) << result.transcript();
    EXPECT_EQ("ftpdisk ls: no secure connection to " + server().hostPort() +
                  ": TLS certificate not trusted: unable to get local issuer certificate; "
                  "SHA-256 fingerprint " +
                  server().fingerprint() +
                  " (once you know it is the server's own certificate, trust it with "
                  "--tls-fingerprint, or give --ca-file with the CA certificate that signed it)\n",
              result.err);
    EXPECT_EQ("", result.out);
    // A pin of another certificate is no trust either.
    const ToolRun other = run({"ls", location(), "--tls-fingerprint", std::string(64, '0')});
    EXPECT_EQ(1, other.status) << other.transcript();
    EXPECT_TRUE(contains(other.err,
                         "TLS certificate not trusted: its fingerprint is not the "
                         "pinned one; SHA-256 fingerprint " +
                             server().fingerprint()))
        << other.transcript();
}

TEST_F(ToolOverTls, CheckWithTlsInsecurePassesWithOneWarning) {
    const ToolRun result = run({"check", "--tls-insecure", location()});
    EXPECT_EQ(0, result.status) << result.transcript();
    expectTlsStep(result.out, "none \\(certificate verification skipped\\)");
    expectCertificate(result.out, server().fingerprint());
    EXPECT_EQ(1, linesStartingWith(result.out, "warning:")) << result.transcript();
    EXPECT_EQ(
        "warning: the server's certificate is not verified (--tls-insecure): the "
        "connection is encrypted, but anyone on the way can pose as the server and read "
        "the password; pin this certificate with --tls-fingerprint " +
            server().fingerprint(),
        lineStartingWith(result.out, "warning:"))
        << result.transcript();
    EXPECT_TRUE(contains(result.out, "verdict: PASS: ")) << result.transcript();
}

TEST_F(ToolOverTls, ALocationWithoutPasswordFindsItInNetrcAsForPlainFtp) {
    const std::string netrc = work_.path() + "/.netrc";
    std::ofstream(netrc) << "machine " << server().hostPort() << " login rec password pw\n";
    ASSERT_EQ(0, ::chmod(netrc.c_str(), 0600));
    ASSERT_TRUE(server().writeFile(base_ + "/a.dat", "abc"));
    const std::string withoutPassword = "rec@ftps://" + server().hostPort() + base_;
    const ToolRun result = run({"ls", "-l", withoutPassword, "--ca-file", server().caFile()});
    EXPECT_EQ(0, result.status) << result.transcript();
    EXPECT_TRUE(contains(result.out, "a.dat")) << result.transcript();
    EXPECT_EQ("", result.err);
}

TEST_F(ToolOverTls, PutGetAndLsMoveTheBytesOverTls) {
    const std::string bytes = ftptest::randomBytes(300 * 1024 + 17, 7);
    const std::string local = work_.path() + "/clip.bin";
    std::ofstream(local, std::ios::binary) << bytes;
    const ToolRun put = run({"put", "--ca-file", server().caFile(), location(), local});
    ASSERT_EQ(0, put.status) << put.transcript();
    std::string stored;
    ASSERT_TRUE(server().readFile(base_ + "/clip.bin", &stored));
    EXPECT_EQ(bytes.size(), stored.size());
    EXPECT_TRUE(bytes == stored) << "the server holds other bytes than were put";

    const ToolRun ls = run({"ls", "-l", location(), "--ca-file", server().caFile()});
    EXPECT_EQ(0, ls.status) << ls.transcript();
    EXPECT_TRUE(contains(ls.out, "clip.bin")) << ls.transcript();

    const std::string back = work_.path() + "/back.bin";
    const ToolRun get =
        run({"get", "--tls-fingerprint", server().fingerprint(), location(), "clip.bin", back});
    ASSERT_EQ(0, get.status) << get.transcript();
    std::ifstream in(back, std::ios::binary);
    const std::string fetched((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
    EXPECT_TRUE(bytes == fetched) << "get brought back other bytes than were put";
}

}  // namespace
