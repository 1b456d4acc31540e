// Outside a fuzzing build each target is linked with this main instead of
// libFuzzer's: it runs every file of the directories it is given through the
// target once, so the seed corpus and the target's checks run as an ordinary
// test in every build, sanitizers included.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        std::set<std::filesystem::path> files;  // in name order, the same every run
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            if (entry.is_regular_file()) files.insert(entry.path());
        }
        for (const auto& path : files) {
            std::ifstream in(path, std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(in)), {});
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++inputs;
        }
    }
    printf("%zu inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 1;
}
