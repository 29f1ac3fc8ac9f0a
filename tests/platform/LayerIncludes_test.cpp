// The layers of the module, as src/CMakeLists.txt builds them, hold in the
// sources too: every project header a source includes belongs to its own
// layer or to one it links (see the table). A header of a higher layer, or of
// a sibling it does not link, fails the test with the file and the line.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

// The layer a project header (or a source file, by its path below src/ or the
// project root) belongs to. The two macro headers of foundation/ are the base
// below everything, so that the host contracts can use them.
std::string layerOf(const std::string& path) {
    if (path == "foundation/Export.h" || path == "foundation/ThreadAnnotations.h") return "base";
    const std::string::size_type slash = path.find('/');
    if (slash == std::string::npos) return "";
    std::string folder = path.substr(0, slash);
    if (folder == "ftpdisk_host") return "hostlib";  // hostlib's own switches
    return folder;
}

// What each layer may include: itself and the layers it links, exactly as
// the targets in src/CMakeLists.txt and hostlib/CMakeLists.txt link them.
const std::map<std::string, std::set<std::string>>& allowedIncludes() {
    static const std::map<std::string, std::set<std::string>> table = {
        {"base", {"base"}},
        {"host", {"base", "host"}},
        {"foundation", {"base", "host", "foundation"}},
        {"ftp", {"base", "host", "foundation", "ftp"}},
        {"listing", {"base", "host", "foundation", "listing"}},
        {"location", {"base", "location"}},
        {"connections", {"base", "host", "foundation", "ftp", "connections"}},
        {"filesystem",
         {"base", "host", "foundation", "ftp", "listing", "location", "connections", "filesystem"}},
        {"hostlib", {"base", "host", "foundation", "hostlib"}},
    };
    return table;
}

bool isDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Every .h and .cpp below `dir`, as paths relative to `root`.
void sourcesBelow(const std::string& root, const std::string& dir, std::vector<std::string>& out) {
    DIR* folder = opendir((root + "/" + dir).c_str());
    if (folder == nullptr) return;
    while (dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string relative = dir + "/" + name;
        if (isDirectory(root + "/" + relative)) {
            sourcesBelow(root, relative, out);
        } else if (name.size() > 2 &&
                   (name.rfind(".h") == name.size() - 2 || name.rfind(".cpp") == name.size() - 4)) {
            out.push_back(relative);
        }
    }
    closedir(folder);
}

// The quoted includes of a file: line number and the included path.
std::vector<std::pair<int, std::string>> quotedIncludes(const std::string& file) {
    std::vector<std::pair<int, std::string>> found;
    std::ifstream in(file);
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        const std::string::size_type hash = line.find_first_not_of(" \t");
        if (hash == std::string::npos || line.compare(hash, 8, "#include") != 0) continue;
        const std::string::size_type open = line.find('"');
        if (open == std::string::npos) continue;
        const std::string::size_type close = line.find('"', open + 1);
        if (close == std::string::npos) continue;
        found.emplace_back(number, line.substr(open + 1, close - open - 1));
    }
    return found;
}

struct Violation {
    std::string where;
    std::string what;
};

// Checks every source of src/ and hostlib/ against the table.
std::vector<Violation> layerViolations(const std::string& root, int* checked) {
    std::vector<Violation> violations;
    std::vector<std::string> files;
    sourcesBelow(root + "/src", ".", files);
    std::vector<std::string> hostFiles;
    sourcesBelow(root, "hostlib", hostFiles);
    for (const std::string& f : hostFiles) files.push_back("../" + f);
    for (const std::string& relative : files) {
        // "./ftp/FTPTool.h" -> "ftp/FTPTool.h"; "../hostlib/..." -> hostlib.
        const bool inHostlib = relative.compare(0, 11, "../hostlib/") == 0;
        const std::string path = inHostlib ? relative : relative.substr(2);
        const std::string layer = inHostlib ? "hostlib" : layerOf(path);
        const std::string full = root + "/src/" + relative;
        const auto rule = allowedIncludes().find(layer);
        if (rule == allowedIncludes().end()) {
            violations.push_back({path, "a source outside every layer"});
            continue;
        }
        for (const auto& include : quotedIncludes(full)) {
            ++*checked;
            const std::string& header = include.second;
            // Includes without a folder name a file beside the source (hostlib's
            // own Clock.h, a test helper): the source's own layer.
            const std::string target =
                header.find('/') == std::string::npos ? layer : layerOf(header);
            if (rule->second.count(target) == 0) {
                violations.push_back({path + ":" + std::to_string(include.first),
                                      "layer " + layer + " includes \"" + header + "\" of layer " +
                                          (target.empty() ? "?" : target)});
            }
        }
    }
    return violations;
}

TEST(LayerIncludes, EverySourceIncludesOnlyItsOwnLayerAndTheLayersItLinks) {
    int checked = 0;
    const std::vector<Violation> violations = layerViolations(FTPDISK_SOURCE_DIR, &checked);
    for (const Violation& v : violations) {
        ADD_FAILURE() << v.where << ": " << v.what;
    }
    EXPECT_GT(checked, 100) << "the sources were not found below " << FTPDISK_SOURCE_DIR;
}

TEST(LayerIncludes, TheTableTellsAHigherLayerFromALowerOne) {
    EXPECT_EQ(layerOf("foundation/Export.h"), "base");
    EXPECT_EQ(layerOf("foundation/SafePointer.h"), "foundation");
    EXPECT_EQ(layerOf("host/technic/KDMutex.h"), "host");
    EXPECT_EQ(layerOf("ftpdisk_host/HostControl.h"), "hostlib");
    const auto& table = allowedIncludes();
    // The rules a future change is most likely to break.
    EXPECT_EQ(table.at("host").count("foundation"), 0u) << "the contracts rest on nothing";
    EXPECT_EQ(table.at("foundation").count("connections"), 0u);
    EXPECT_EQ(table.at("ftp").count("listing"), 0u);
    EXPECT_EQ(table.at("listing").count("ftp"), 0u);
    EXPECT_EQ(table.at("connections").count("filesystem"), 0u);
    EXPECT_EQ(table.at("hostlib").count("ftp"), 0u) << "the host library rests on the foundation";
}

}  // namespace
