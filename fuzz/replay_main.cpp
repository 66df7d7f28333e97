// Replays a fuzz target in a normal build, as a test: every file of its corpus folder, then
// seeded inputs (corpus files with random edits, and plain random bytes) through
// LLVMFuzzerTestOneInput. A failing check aborts; the input's seed is printed first.
// Usage: <target>_replay CORPUS_DIR [RANDOM_INPUTS]
#include <dirent.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {
char current[256] = "nothing yet";
void onAbort(int) {
    fprintf(stderr, "check failed on input: %s\n", current);
}
void run(const std::vector<uint8_t>& input) {
    LLVMFuzzerTestOneInput(input.data(), input.size());
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s CORPUS_DIR [RANDOM_INPUTS]\n", argv[0]);
        return 2;
    }
    signal(SIGABRT, onAbort);
    std::vector<std::vector<uint8_t>> corpus;
    DIR* dir = opendir(argv[1]);
    for (dirent* entry; dir != nullptr && (entry = readdir(dir)) != nullptr;) {
        if (entry->d_name[0] == '.') continue;
        const std::string path = std::string(argv[1]) + "/" + entry->d_name;
        std::ifstream in(path, std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        snprintf(current, sizeof current, "corpus file %s", path.c_str());
        run(corpus.back());
    }
    if (dir != nullptr) closedir(dir);
    const unsigned inputs = argc > 2 ? unsigned(atoi(argv[2])) : 3000;
    for (unsigned seed = 1; seed <= inputs; ++seed) {
        std::mt19937 rng(seed);
        std::vector<uint8_t> input(rng() % 4096);
        for (uint8_t& b : input) b = uint8_t(rng() % 8 == 0 ? 0x7E : rng());
        if (!corpus.empty() && seed % 4 != 0) input = corpus[rng() % corpus.size()];
        for (unsigned edits = 1 + rng() % 8; edits > 0 && !input.empty(); --edits) {
            const size_t at = rng() % input.size();
            if (rng() % 3 == 0)
                input.insert(input.begin() + long(at), uint8_t(rng()));
            else
                input[at] = uint8_t(rng() % 4 == 0 ? 0x7E : rng());
        }
        snprintf(current, sizeof current, "seed %u (%zu bytes)", seed, input.size());
        run(input);
    }
    printf("%zu corpus files and %u seeded inputs passed\n", corpus.size(), inputs);
    return 0;
}
