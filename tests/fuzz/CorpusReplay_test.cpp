// Replays one fuzz target's corpus (fuzz/corpus/<name>: its seeds and every
// input a fuzzing run found) through the target's own checks, in every build
// of the test suite: a broken property aborts, as under the fuzzer. An input
// that once crashed or broke a property stays here as its regression test.
#include <gtest/gtest.h>

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// One suite name per target (FTPDISK_FUZZ_SUITE), so that ctest tells them apart.
TEST(FTPDISK_FUZZ_SUITE, EveryInputKeepsTheTargetsProperties) {
    std::vector<std::filesystem::path> inputs;
    for (const auto& entry : std::filesystem::directory_iterator(FTPDISK_FUZZ_CORPUS)) {
        if (entry.is_regular_file()) {
            inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    ASSERT_FALSE(inputs.empty()) << FTPDISK_FUZZ_CORPUS;
    for (const auto& input : inputs) {
        std::ifstream file(input, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)),
                                std::istreambuf_iterator<char>());
        ASSERT_TRUE(file.good() || file.eof()) << input;
        SCOPED_TRACE(input.string());
        EXPECT_EQ(0, LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()),
                                            bytes.size()));
    }
}

}  // namespace
