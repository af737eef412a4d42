// Says of each file that is named whether the reader takes it: a line "good" or "bad", in the same order.

#include <cstdio>

#include "tools/mix/MixFile.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::puts(vexalive::readMixFile(argv[i]).mistakes.empty() ? "good" : "bad");
    }
}
