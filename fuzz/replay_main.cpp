// Runs a fuzz target over files and folders of inputs, without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

static int run_file(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return 1;
}

int main(int argc, char **argv) {
    int n = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (fs::is_directory(argv[i], ec)) {
            for (const auto &e : fs::recursive_directory_iterator(argv[i]))
                if (e.is_regular_file()) n += run_file(e.path());
        } else if (fs::exists(argv[i], ec)) {
            n += run_file(argv[i]);
        }
    }
    std::printf("replayed %d inputs\n", n);
    return 0;
}
