// Runs a fuzz target over files (the checked-in corpus and the regression
// inputs) without libFuzzer, so that every build — plain, ASan+UBSan, TSan —
// replays them as an ordinary test.  Usage: <target> file-or-dir...
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

static int RunFile(const std::string& path)
{
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) {
        fprintf(stderr, "cannot open %s\n", path.c_str());
        return 1;
    }
    std::vector<uint8_t> data;
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
        data.insert(data.end(), buf, buf + n);
    fclose(f);
    // An exactly sized copy, as libFuzzer hands inputs over.
    auto* copy = static_cast<uint8_t*>(malloc(data.size() ? data.size() : 1));
    for (size_t i = 0; i < data.size(); i++)
        copy[i] = data[i];
    LLVMFuzzerTestOneInput(copy, data.size());
    free(copy);
    return 0;
}

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int nFiles = 0, nFailed = 0;
    for (int i = 1; i < argc; i++) {
        struct stat st;
        if (stat(argv[i], &st) != 0) {
            fprintf(stderr, "missing: %s\n", argv[i]);
            return 1;
        }
        if (S_ISDIR(st.st_mode)) {
            DIR* d = opendir(argv[i]);
            std::vector<std::string> names;
            while (dirent* e = readdir(d))
                if (e->d_name[0] != '.')
                    names.push_back(std::string(argv[i]) + "/" + e->d_name);
            closedir(d);
            for (const std::string& p : names) {
                nFailed += RunFile(p);
                nFiles++;
            }
        } else {
            nFailed += RunFile(argv[i]);
            nFiles++;
        }
    }
    printf("replayed %d inputs\n", nFiles);
    return nFailed != 0 || nFiles == 0;
}
