// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target on files, and on all those in folders, as any compiler builds it.
#include <stdint.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int run(const std::filesystem::path& path) {
    if (is_directory(path)) {
        int runs = 0;
        for (const auto& entry : std::filesystem::directory_iterator(path)) runs += run(entry);
        return runs;
    }
    std::ifstream file(path, std::ios::binary);
    std::vector<char> input(std::istreambuf_iterator<char>(file), {});
    if (!file) return 0;
    input.shrink_to_fit();
    printf("%s, %zu bytes\n", path.c_str(), input.size());
    fflush(stdout);  // should the target end here
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    return 1;
}

int main(int argc, char** argv) {
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        const int more = run(argv[i]);
        if (more == 0) return fprintf(stderr, "%s: no input\n", argv[i]), 2;
        runs += more;
    }
    return runs == 0 ? 2 : 0;
}
