// Runs a fuzz target over every file of the folders named on the command line, so that the corpora are checked by
// every build, also with compilers that have no libFuzzer.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        DIR* folder = opendir(argv[i]);
        if (folder == nullptr) {
            fprintf(stderr, "cannot read the corpus %s\n", argv[i]);
            return 1;
        }
        while (dirent* entry = readdir(folder)) {
            if (entry->d_name[0] == '.') continue;
            std::ifstream in(std::string(argv[i]) + "/" + entry->d_name, std::ios::binary);
            std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++files;
        }
        closedir(folder);
    }
    printf("%d inputs replayed\n", files);
    return files > 0 ? 0 : 1;
}
