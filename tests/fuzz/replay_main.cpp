// Replays a fuzz target's inputs (files, or folders of them) without
// libFuzzer, so that every build, sanitizers included, runs the corpus as a test.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    for (int i = 1; i < argc; i++) {
        if (fs::is_directory(argv[i]))
            files.insert(files.end(), fs::directory_iterator(argv[i]), fs::directory_iterator());
        else
            files.push_back(argv[i]);
    }
    for (const fs::path &p : files) {
        std::ifstream in(p, std::ios::binary);
        if (!in)
            return fprintf(stderr, "cannot open %s\n", p.c_str()), 1;
        const std::vector<uint8_t> data{std::istreambuf_iterator<char>(in), {}};
        std::vector<uint8_t> exact(data); // exactly sized, as libFuzzer hands inputs over
        LLVMFuzzerTestOneInput(exact.data(), exact.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return files.empty();
}
