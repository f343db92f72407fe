// The console's mode as a program of its own, for tests.
#include "console/Console.h"

int main(int argc, char** argv) {
    return fleet::RunConsole(argc, argv);
}
