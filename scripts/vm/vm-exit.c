/* Ends the virtual machine: writes its argument to the emulator's exit port. The emulator's status is then 2n + 1. */
#include <stdlib.h>
#include <sys/io.h>

int main(int argc, char** argv) {
    if (ioperm(0xf4, 4, 1) != 0) return 1;
    outb((unsigned char)(argc > 1 ? atoi(argv[1]) : 1), 0xf4);
    return 1;
}
