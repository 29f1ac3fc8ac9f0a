// The command table in tools/main.cpp is the one source of the help texts:
// every command's `--help` usage must read the same in the manual page
// (packaging/ftpdisk.1, its COMMANDS entries) and in docs/TOOL.md (its
// command table), and both must list exactly the commands `ftpdisk --help`
// lists. An option added, renamed or dropped in one place and not the others
// fails here.
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ToolRunner.h"

namespace {

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Runs of blanks made one blank, none at either end.
std::string squeezed(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (std::isspace(static_cast<unsigned char>(c))) {
            if (!out.empty() && out.back() != ' ') out += ' ';
        } else {
            out += c;
        }
    }
    if (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

// The command names, in order, from the overview's "commands:" list.
std::vector<std::string> commandNames() {
    const ToolRun run = runTool({"--help"});
    EXPECT_EQ(run.status, 0) << run.transcript();
    std::vector<std::string> names;
    bool inList = false;
    for (const std::string& line : linesOf(run.out)) {
        if (line == "commands:") {
            inList = true;
        } else if (inList && line.empty()) {
            break;
        } else if (inList) {
            std::istringstream words(line);
            std::string name;
            words >> name;
            names.push_back(name);
        }
    }
    return names;
}

// "ls [-l] LOCATION [PATH]": the usage paragraph of `ftpdisk NAME --help`
// without "usage: ftpdisk ", its lines joined.
std::string helpUsage(const std::string& name) {
    const ToolRun run = runTool({name, "--help"});
    EXPECT_EQ(run.status, 0) << run.transcript();
    const std::string opening = "usage: ftpdisk ";
    EXPECT_EQ(run.out.compare(0, opening.size(), opening), 0) << run.out;
    const std::string::size_type end = run.out.find("\n\n");
    return squeezed(run.out.substr(opening.size(), end - opening.size()));
}

// One line of troff as it reads: the arguments of a font macro (.B, .BI,
// .BR, ...) joined without blanks, as the macro joins them, font changes
// dropped, "\-" a minus.
std::string troffText(const std::string& line) {
    std::string body = line;
    if (!body.empty() && body[0] == '.') {
        const std::string::size_type blank = body.find(' ');
        body = blank == std::string::npos ? "" : body.substr(blank + 1);
        std::string joined;
        bool quoted = false;
        for (char c : body) {
            if (c == '"') {
                quoted = !quoted;
            } else if (c != ' ' || quoted) {
                joined += c;
            }
        }
        body = joined;
    }
    std::string out;
    for (std::string::size_type i = 0; i < body.size(); ++i) {
        if (body[i] == '\\' && i + 1 < body.size()) {
            if (body[i + 1] == 'f' && i + 2 < body.size()) {
                i += 2;  // \fB, \fI, \fR, \fP
                continue;
            }
            if (body[i + 1] == '-') {
                out += '-';
                ++i;
                continue;
            }
        }
        out += body[i];
    }
    return squeezed(out);
}

// The manual page's COMMANDS entries: the line after each ".TP", by name.
std::map<std::string, std::string> manualEntries() {
    const std::vector<std::string> lines =
        linesOf(fileText(std::string(FTPDISK_SOURCE_DIR) + "/packaging/ftpdisk.1"));
    std::map<std::string, std::string> entries;
    bool inCommands = false;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].rfind(".SH", 0) == 0) inCommands = lines[i] == ".SH COMMANDS";
        if (inCommands && lines[i] == ".TP" && i + 1 < lines.size()) {
            const std::string entry = troffText(lines[i + 1]);
            entries[entry.substr(0, entry.find(' '))] = entry;
        }
    }
    return entries;
}

// docs/TOOL.md's command table: the first cell of each row of the first
// table under "## Commands", by name.
std::map<std::string, std::string> guideEntries() {
    const std::vector<std::string> lines =
        linesOf(fileText(std::string(FTPDISK_SOURCE_DIR) + "/docs/TOOL.md"));
    std::map<std::string, std::string> entries;
    bool inCommands = false;
    bool inTable = false;
    for (const std::string& line : lines) {
        if (line.rfind("## ", 0) == 0) inCommands = line == "## Commands";
        if (!inCommands) continue;
        if (line.rfind('|', 0) == 0) {
            inTable = true;
        } else if (inTable) {
            break;
        }
        if (line.rfind("| `", 0) != 0) continue;
        const std::string::size_type close = line.find('`', 3);
        const std::string entry = squeezed(line.substr(3, close - 3));
        entries[entry.substr(0, entry.find(' '))] = entry;
    }
    return entries;
}

TEST(ToolHelp, EveryCommandsUsageReadsTheSameInTheManualPageAndTheGuide) {
    const std::vector<std::string> names = commandNames();
    ASSERT_EQ(names.size(), 11u);
    const std::map<std::string, std::string> manual = manualEntries();
    const std::map<std::string, std::string> guide = guideEntries();
    for (const std::string& name : names) {
        const std::string usage = helpUsage(name);
        ASSERT_EQ(usage.compare(0, name.size() + 1, name + " "), 0) << usage;
        ASSERT_EQ(manual.count(name), 1u) << name << " has no entry in packaging/ftpdisk.1";
        EXPECT_EQ(manual.at(name), usage) << "packaging/ftpdisk.1, " << name;
        ASSERT_EQ(guide.count(name), 1u) << name << " has no row in docs/TOOL.md";
        EXPECT_EQ(guide.at(name), usage) << "docs/TOOL.md, " << name;
    }
}

TEST(ToolHelp, TheManualPageAndTheGuideListNoCommandTheToolLacks) {
    const std::vector<std::string> names = commandNames();
    std::map<std::string, std::string> manual = manualEntries();
    std::map<std::string, std::string> guide = guideEntries();
    for (const std::string& name : names) {
        manual.erase(name);
        guide.erase(name);
    }
    EXPECT_TRUE(manual.empty()) << "packaging/ftpdisk.1 has " << manual.begin()->first;
    EXPECT_TRUE(guide.empty()) << "docs/TOOL.md has " << guide.begin()->first;
}

}  // namespace
