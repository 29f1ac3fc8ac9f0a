// What the recorder can see of the loadable module: every C++ symbol that
// libftpdisk.so defines for the dynamic linker must belong to the store, the
// registry or the error type. Anything else exported would let a recorder (or
// another module) bind to internals, or clash with its own classes.
#include <cxxabi.h>
#include <stdio.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string demangle(const std::string& symbol) {
    int status = 0;
    char* text = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
    if (status != 0 || text == nullptr) {
        free(text);
        return symbol;
    }
    std::string out(text);
    free(text);
    return out;
}

// The defined dynamic symbols of the library, as nm lists them.
std::vector<std::string> definedDynamicSymbols(const std::string& library) {
    std::vector<std::string> symbols;
    const std::string command = "nm -D --defined-only '" + library + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return symbols;
    }
    char line[4096];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        // "0000000000012340 T _ZN13FTPFileSystem4initEv"
        std::istringstream words(line);
        std::string address, kind, name;
        if (words >> address >> kind >> name) {
            symbols.push_back(name);
        }
    }
    pclose(pipe);
    return symbols;
}

bool belongsToAnExportedClass(const std::string& readable) {
    static const char* const classes[] = {"FTPFileSystem", "FTPFileSystemManager",
                                          "KDRuntimeError"};
    for (const char* name : classes) {
        const std::string c(name);
        if (readable.compare(0, c.size() + 2, c + "::") == 0) return true;
        if (readable == "typeinfo for " + c || readable == "typeinfo name for " + c ||
            readable == "vtable for " + c) {
            return true;
        }
    }
    return false;
}

TEST(ExportedSymbols, TheSharedLibraryExportsOnlyTheStoreTheRegistryAndTheErrorType) {
    const std::vector<std::string> symbols = definedDynamicSymbols(FTPDISK_SHARED_LIBRARY);
    ASSERT_FALSE(symbols.empty()) << "nm listed nothing for " << FTPDISK_SHARED_LIBRARY;
    std::set<std::string> readable;
    for (const std::string& symbol : symbols) {
        if (symbol.compare(0, 2, "_Z") != 0) {
            continue;  // linker-made C names such as _init, _fini, _end
        }
        const std::string name = demangle(symbol);
        readable.insert(name);
        EXPECT_TRUE(belongsToAnExportedClass(name))
            << "exported: " << name << " (" << symbol << ")";
    }
    // And the recorder finds what it needs.
    for (const char* needed :
         {"FTPFileSystemManager::getInstance()",
          "FTPFileSystemManager::addFTPFileSystem(std::__cxx11::basic_string<char, "
          "std::char_traits<char>, std::allocator<char> > const&)",
          "FTPFileSystem::FTPFileSystem(char const*, char const*, char const*, int)",
          "FTPFileSystem::init()", "FTPFileSystem::flush(int)", "KDRuntimeError::what() const",
          "typeinfo for KDRuntimeError", "vtable for FTPFileSystem"}) {
        EXPECT_EQ(readable.count(needed), 1u) << "missing: " << needed;
    }
}

}  // namespace
