// Runs a fuzz target's entry point over every file of the corpus folders it is given: the
// coverage build (gcc, which has no libFuzzer) measures what the committed corpora reach.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    unsigned inputs = 0;
    for (int i = 1; i < argc; ++i) {
        DIR *dir = opendir(argv[i]);
        if (dir == nullptr) {
            std::fprintf(stderr, "no corpus folder %s\n", argv[i]);
            return 1;
        }
        while (const dirent *e = readdir(dir)) {
            const std::string path = std::string(argv[i]) + "/" + e->d_name;
            std::ifstream in(path, std::ios::binary);
            if (e->d_name[0] == '.' || !in) {
                continue;
            }
            const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
            (void)LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++inputs;
        }
        closedir(dir);
    }
    std::printf("replayed %u inputs\n", inputs);
    return inputs != 0 ? 0 : 1;
}
