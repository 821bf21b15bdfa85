// Feeds the seeds of corpus folders to a fuzz target that is built without libFuzzer, each in a
// process of its own. A seed that crashes or fails a check is named and fails the run, and so does
// a folder without seeds: a test that replays nothing protects nothing.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "border.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kLimitS = 30;

[[noreturn]] void feed(const fs::path &seed) {
    alarm(kLimitS);
    std::ifstream stream(seed, std::ios::binary);
    const std::vector<uint8_t> data(std::istreambuf_iterator<char>(stream), {});
    LLVMFuzzerTestOneInput(data.data(), data.size());
    exit(0);
}

bool replay(const fs::path &seed) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        feed(seed);
    int status = -1;
    if (child > 0 && waitpid(child, &status, 0) == child && status == 0)
        return true;
    printf("FAILED %s: %s %d\n", seed.c_str(), WIFSIGNALED(status) ? "signal" : "status",
           WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    return false;
}

bool replay_all(const fs::path &folder) {
    std::error_code error;
    std::vector<fs::path> seeds;
    for (const auto &entry : fs::directory_iterator(folder, error))
        if (entry.is_regular_file())
            seeds.push_back(entry.path());
    std::sort(seeds.begin(), seeds.end());
    const auto failures = std::count_if(seeds.begin(), seeds.end(),
                                        [](const fs::path &seed) { return !replay(seed); });
    printf("%s: %zu seeds, %td failed\n", folder.c_str(), seeds.size(), failures);
    return !seeds.empty() && failures == 0;
}

}  // namespace

int main(int argc, char **argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    bool passed = argc > 1;
    for (int i = 1; i < argc; i++)
        passed = replay_all(argv[i]) && passed;
    return passed ? 0 : 1;
}
