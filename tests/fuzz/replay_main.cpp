// A model target as an ordinary test program, for builds without libFuzzer:
// replays the committed corpus, then a fixed number of random inputs from a
// fixed rng start value, through LLVMFuzzerTestOneInput.
//   <target>_model CORPUS_DIR [RANDOM_INPUTS [RNG_START]]
// A difference from the model traps; the input's name is printed first.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

char current[512];

void say_input(int sig)
{
    if (write(2, current, strlen(current)) < 0) {} // nothing more to do on the way down
    signal(sig, SIG_DFL);
    raise(sig);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return fprintf(stderr, "usage: %s CORPUS_DIR [RANDOM_INPUTS [RNG_START]]\n", argv[0]), 2;
    for (int sig : {SIGILL, SIGTRAP, SIGSEGV, SIGABRT, SIGBUS, SIGFPE})
        signal(sig, say_input);
    std::vector<std::filesystem::path> names;
    std::error_code missing; // no corpus: random inputs only
    for (const auto &e : std::filesystem::directory_iterator(argv[1], missing))
        names.push_back(e.path());
    std::sort(names.begin(), names.end());
    for (const auto &path : names) {
        snprintf(current, sizeof current, "failed on corpus input %s\n", path.c_str());
        std::ifstream f(path, std::ios::binary);
        std::vector<uint8_t> in{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
        LLVMFuzzerTestOneInput(in.data(), in.size());
    }
    unsigned long count = argc > 2 ? strtoul(argv[2], nullptr, 0) : 2000;
    uint64_t x = argc > 3 ? strtoull(argv[3], nullptr, 0) : 1;
    auto next = [&x] { // xorshift64*; never 0
        x ^= x >> 12, x ^= x << 25, x ^= x >> 27;
        return static_cast<uint32_t>((x * 0x2545F4914F6CDD1DULL) >> 32);
    };
    x = x ? x : 1;
    for (unsigned long i = 0; i < count; ++i) {
        snprintf(current, sizeof current, "failed on random input %lu (rng start %s)\n", i, argc > 3 ? argv[3] : "1");
        std::vector<uint8_t> in(next() % 513);
        for (uint8_t &b : in)
            b = static_cast<uint8_t>(next());
        LLVMFuzzerTestOneInput(in.data(), in.size());
    }
    printf("%zu corpus inputs and %lu random inputs agree with the model\n", names.size(), count);
    return 0;
}
