// ftpdisk: tries an FTP storage location without a recorder, through the same
// exported store and registry a recorder loads (libftpdisk.so with the POSIX
// host library).
#include <signal.h>

#include <cstring>
#include <iostream>
#include <vector>

#include "Commands.h"

namespace ftpdisk_tool {

namespace {

#define LOCATION_HELP                                                                   \
    "LOCATION is user@ftp://server[:port]/path, for example\n"                          \
    "  rec@ftp://127.0.0.1:2121/video, or user@ftps://server[:port]/path for\n"         \
    "  explicit TLS (FTPS) on every connection, on the same default port 21. The\n"     \
    "  store is made from server, user and password; /path is the base directory,\n"    \
    "  and every PATH argument is taken below it (a leading / included; \"..\" is\n"    \
    "  refused).\n"                                                                     \
    "\n"                                                                                \
    "The password comes from the environment variable FTPDISK_PASSWORD, or when\n"      \
    "  that is unset or empty from ~/.netrc ($HOME/.netrc): the first entry\n"          \
    "  \"machine HOST:PORT login USER password SECRET\" for the server, else one for\n" \
    "  \"machine HOST\", else a \"default\" entry; an entry without login serves any\n" \
    "  user. The file must be private (chmod 600 ~/.netrc). The password is never\n"    \
    "  printed.\n"                                                                      \
    "The older form user(password)@ftp://server[:port]/path still works (quote it:\n"   \
    "  the shell treats ( and ) specially) but exposes the password: every local\n"     \
    "  user sees it in the process list until the command has read its arguments\n"     \
    "  (it then blanks it out of them), and the shell's history keeps it.\n"            \
    "\n"                                                                                \
    "TLS-OPTIONS, for an ftps:// location only, at most one of them. Without them\n"    \
    "  the server's certificate must chain to the system's trust store and carry\n"     \
    "  the server's name or address as LOCATION gives it.\n"                            \
    "  --tls-fingerprint SHA256  trust exactly the certificate with this SHA-256\n"     \
    "                            fingerprint (64 hexadecimal digits, colons between\n"  \
    "                            pairs allowed, as ftpdisk check prints it), whoever\n" \
    "                            signed it: for a server's self-signed certificate\n"   \
    "  --ca-file FILE            also trust the CA certificates in the PEM file FILE\n" \
    "                            (the server's name is still checked)\n"                \
    "  --tls-insecure            accept any certificate: the connection is\n"           \
    "                            encrypted, but anyone on the way can pose as the\n"    \
    "                            server and read the password\n"

const std::vector<Command>& commands() {
    // One row per command, laid out by hand: formatting would give every
    // field of a row a line of its own.
    // clang-format off
    static const std::vector<Command> table = {
        {"check", "walk a location through everything a recorder does, with a verdict",
         "usage: ftpdisk check [TLS-OPTIONS] LOCATION [--cameras N]\n"
         "\n"
         "Registers the location, connects and logs in, lists the base through a\n"
         "passive data connection (saying which address the server announces for\n"
         "data and whether it is the one it was reached at) and gives the slowest\n"
         "reply, makes a test directory below the base, writes a test file, lists it,\n"
         "measures it, reads it back, deletes it, removes the directory and logs out.\n"
         "Prints one line per step with its result and time, then a verdict. Exit\n"
         "status 0 only if every step passed.\n"
         "For an ftps:// location a tls step after the login shows the server's\n"
         "certificate (subject, issuer, validity and SHA-256 fingerprint, to pin with\n"
         "--tls-fingerprint), which check it passed, and the protocol and cipher; with\n"
         "--tls-insecure it warns that the certificate is not verified. When the\n"
         "certificate is not trusted, init fails with its fingerprint, and the tls\n"
         "step shows the certificate without logging in.\n"
         "  --cameras N   also open N files at once (1 to 64), as N cameras recording\n"
         "                together, write and close them: the store then holds N + 1\n"
         "                logged-in connections. Says how many the server granted,\n"
         "                how long the opens took, and, when the server refuses one,\n"
         "                what it answered.\n"
         "\n" LOCATION_HELP,
         {}, {"--cameras"}, 1, 1, runCheck},
        {"ls", "list the directories and files of a directory",
         "usage: ftpdisk ls [-l] [TLS-OPTIONS] LOCATION [PATH]\n"
         "\n"
         "Lists the subdirectories (with a trailing /) and then the plain files of\n"
         "PATH (default: the base directory), each group sorted by name.\n"
         "  -l   show each file's size in bytes (one directory listing per file)\n"
         "\n" LOCATION_HELP,
         {"-l"}, {}, 1, 2, runLs},
        {"du", "total size of a directory tree",
         "usage: ftpdisk du [TLS-OPTIONS] LOCATION [PATH]\n"
         "\n"
         "Adds up the listed sizes of everything below PATH (default: the base\n"
         "directory), the directory entries' own listed sizes included, as the\n"
         "recorder's space accounting does. Prints bytes, a readable size and the path.\n"
         "\n" LOCATION_HELP,
         {}, {}, 1, 2, runDu},
        {"df", "the store's space figures",
         "usage: ftpdisk df [TLS-OPTIONS] LOCATION\n"
         "\n"
         "Prints the store's two space figures. The store counts only the bytes it\n"
         "wrote itself since init and never asks the server, so a fresh store in this\n"
         "process reports 0 MiB used; use du for what is on the server.\n"
         "\n" LOCATION_HELP,
         {}, {}, 1, 1, runDf},
        {"mkdir", "make a directory and every missing parent",
         "usage: ftpdisk mkdir [TLS-OPTIONS] LOCATION PATH\n"
         "\n"
         "Creates PATH and every missing directory above it.\n"
         "\n" LOCATION_HELP,
         {}, {}, 2, 2, runMkdir},
        {"rm", "delete a file, or a directory tree with -r",
         "usage: ftpdisk rm [-r] [TLS-OPTIONS] LOCATION PATH\n"
         "\n"
         "Deletes the file PATH. With -r, PATH may be a directory: it is removed with\n"
         "everything below it, depth first; on a failure what was already removed\n"
         "stays removed. The server's root directory is never removed.\n"
         "\n" LOCATION_HELP,
         {"-r"}, {}, 2, 2, runRm},
        {"mv", "rename a file",
         "usage: ftpdisk mv [TLS-OPTIONS] LOCATION FROM TO\n"
         "\n"
         "Renames FROM to TO, both below the base directory.\n"
         "\n" LOCATION_HELP,
         {}, {}, 3, 3, runMv},
        {"put", "upload a local file",
         "usage: ftpdisk put [TLS-OPTIONS] LOCATION LOCALFILE [PATH]\n"
         "\n"
         "Uploads LOCALFILE to PATH (default: its own name in the base directory; an\n"
         "existing directory receives the file under its own name) through open,\n"
         "write and close, then checks the size the server lists. On a terminal a\n"
         "progress bar with bytes, rate and time left is drawn on standard error.\n"
         "A failed upload leaves the partial file on the server and says so.\n"
         "\n" LOCATION_HELP,
         {}, {}, 2, 3, runPut},
        {"get", "download a remote file",
         "usage: ftpdisk get [TLS-OPTIONS] LOCATION PATH [LOCALFILE]\n"
         "\n"
         "Downloads PATH to LOCALFILE (default: its own name in the current directory;\n"
         "an existing directory receives the file under its own name) through open,\n"
         "read and close. The data goes to a new hidden file of its own beside\n"
         "LOCALFILE (.NAME.ftpdisk-XXXXXX) and is renamed over LOCALFILE only when\n"
         "complete and of the size the server lists; a failed download removes that\n"
         "file and leaves every other file as it was. On a terminal a progress bar\n"
         "with bytes, rate and time left is drawn on standard error.\n"
         "\n" LOCATION_HELP,
         {}, {}, 2, 3, runGet},
        {"cat", "write a remote file to standard output",
         "usage: ftpdisk cat [TLS-OPTIONS] LOCATION PATH\n"
         "\n"
         "Copies the file PATH to standard output, byte for byte.\n"
         "\n" LOCATION_HELP,
         {}, {}, 2, 2, runCat},
        {"record", "simulate a recorder writing cameras' segment files",
         "usage: ftpdisk record [TLS-OPTIONS] LOCATION [--cameras N] [--seconds S]\n"
         "                      [--rate MBIT] [--segment SEC] [--aio] [--json FILE]\n"
         "                      [--day-seconds SEC [--keep-days N]]\n"
         "                      [--list-every SEC] [--pause-every SEC --pause-for SEC]\n"
         "                      [--samples N]\n"
         "\n"
         "Runs N camera threads (default 1, at most 64) for S seconds (default 10).\n"
         "Each makes <base>/<YYYY-MM-DD>/cam<NN> and writes MBIT megabits per second\n"
         "(default 4) in ten blocks a second through open, write and close (with\n"
         "--aio: aioWrite and aioReturn), starting a new file every SEC seconds\n"
         "(default 60). Files are named <segment:5 digits>_<HHMMSS>.dat; byte i of a\n"
         "file is (seed + i) mod 251 with seed = (31 * camera + segment) mod 251.\n"
         "A live status line is drawn on standard error when it is a terminal; the\n"
         "summary gives files, bytes, throughput, failed calls and open, close and\n"
         "write latency percentiles. Exit status 0 only if no call failed. Ctrl-C\n"
         "ends the run early: every file is closed, the summary printed, and the exit\n"
         "status is 130.\n"
         "Failed calls are named with camera, operation, remote path, time into the\n"
         "run and why, as far as a login of the command's own to the server can tell\n"
         "(at most one a second): each reason once with its count, then the first\n"
         "10 calls. Each camera holds one connection for its open file and the store\n"
         "one more; when the server turns logins away, the verdict says how many\n"
         "connections it granted, how many the cameras need, and what it answered.\n"
         "The summary also gives when every camera had its first file open and the\n"
         "write latency of the calls after that; --json FILE writes every figure of\n"
         "the summary into FILE as one JSON object, for scripts.\n"
         "\n"
         "What a recorder does besides writing:\n"
         "  --day-seconds SEC  a new day directory every SEC seconds of the run (the\n"
         "                     dates that follow the start's), so days roll in a short run\n"
         "  --keep-days N      remove the run's days older than the N most recent\n"
         "  --list-every SEC   every SEC seconds list the base and add up its size\n"
         "                     (default 10 with --keep-days, which removes at those times)\n"
         "  --pause-every SEC, --pause-for SEC\n"
         "                     every camera closes its file and pauses for the second\n"
         "                     time after recording for the first (whole segments)\n"
         "  --samples N        latency samples kept per camera and kind (default and\n"
         "                     most 100000)\n"
         "\n" LOCATION_HELP,
         {"--aio"},
         {"--cameras", "--seconds", "--rate", "--segment", "--json", "--day-seconds",
          "--keep-days", "--list-every", "--pause-every", "--pause-for", "--samples"},
         1, 1, runRecord},
    };
    // clang-format on
    return table;
}

void printOverview(std::ostream& out) {
    out << "usage: ftpdisk COMMAND [OPTIONS] LOCATION [ARGUMENTS]\n"
           "\n"
           "Tries an FTP storage location through the recorder's own storage module.\n"
           "\n"
           "commands:\n";
    for (const Command& command : commands()) {
        std::string name = command.name;
        name.resize(8, ' ');
        out << "  " << name << command.synopsis << "\n";
    }
    out << "\n"
           "Run 'ftpdisk COMMAND --help' for a command's arguments.\n"
           "Exit status: 0 success, 1 a store operation failed, 2 bad arguments.\n"
           "\n" LOCATION_HELP;
}

}  // namespace

namespace {

// The process list (/proc/PID/cmdline) shows this process's own argument
// memory: once the arguments are copied, every password in them is
// overwritten there, so that it lingers no longer than it must.
void blankPasswords(int argc, char** argv) {
    for (int i = 0; i < argc; ++i) {
        std::size_t begin = 0;
        std::size_t length = 0;
        if (findPassword(argv[i], begin, length)) {
            std::memset(argv[i] + begin, '*', length);
        }
    }
}

}  // namespace

int runCommand(const Command& command, int argc, char** argv) {
    Arguments args;
    std::string problem;
    // Every command takes a location, so every command takes the TLS options
    // (applied by Session::registerLocation).
    std::set<std::string> flags = command.flags;
    flags.insert(kTlsInsecureOption);
    std::set<std::string> values = command.values;
    values.insert(kTlsFingerprintOption);
    values.insert(kCaFileOption);
    const bool parsed = parseArguments(argc, argv, flags, values, args, problem);
    blankPasswords(argc, argv);
    if (!parsed) {
        return usage(command.name, problem);
    }
    if (args.help) {
        std::cout << command.help << std::flush;
        return kExitOk;
    }
    const std::size_t count = args.positional.size();
    if (count < command.minPositional) {
        return usage(command.name, count == 0 ? "missing LOCATION" : "missing arguments");
    }
    if (count > command.maxPositional) {
        return usage(command.name, "too many arguments");
    }
    return command.body(args);
}

}  // namespace ftpdisk_tool

int main(int argc, char** argv) {
    using namespace ftpdisk_tool;
    // A closed standard output must end in an error message, not in a silent
    // death by signal halfway through a transfer.
    ::signal(SIGPIPE, SIG_IGN);
    if (argc < 2) {
        printOverview(std::cerr);
        return kExitUsage;
    }
    const std::string word = argv[1];
    if (word == "--help" || word == "-h" || word == "help") {
        if (word == "help" && argc > 2) {
            for (const Command& command : commands()) {
                if (argv[2] == std::string(command.name)) {
                    std::cout << command.help << std::flush;
                    return kExitOk;
                }
            }
        }
        printOverview(std::cout);
        return kExitOk;
    }
    for (const Command& command : commands()) {
        if (word == command.name) {
            return runCommand(command, argc - 2, argv + 2);
        }
    }
    std::cerr << "ftpdisk: unknown command \"" << word << "\" (see ftpdisk --help)" << std::endl;
    return kExitUsage;
}
