// Prints, for each file named on the command line, "good" if the reader accepts it and "bad" if not.

#include <cstdio>

#include "tools/mix/MixFile.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::puts(vexalive::readMixFile(argv[i]) ? "good" : "bad");
    }
}
