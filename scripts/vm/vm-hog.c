/* Maps and touches MB page by page, then holds it for seconds (default: returns at once). vm-hog MB [SECONDS] */
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

int main(int argc, char** argv) {
    size_t bytes = (size_t)(argc > 1 ? atol(argv[1]) : 64) << 20;
    char* memory = mmap(NULL, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        perror("mmap");
        return 2;
    }
    for (size_t at = 0; at < bytes; at += 4096) memory[at] = 1;
    if (argc > 2) sleep((unsigned)atoi(argv[2]));
    return 0;
}
