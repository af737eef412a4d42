// vexalive-media: runs one relay or one mix. `vexalive serve --media` starts one process for each.

#include <gst/gst.h>

#include <cstdio>
#include <cstring>

#include "media/MixWorker.h"
#include "media/RelayWorker.h"

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "relay") == 0) {
        gst_init(nullptr, nullptr);
        vexalive::RelayWorker worker;
        vexalive::runWorker("relay", worker);
    }
    if (argc == 2 && std::strcmp(argv[1], "mix") == 0) {
        gst_init(nullptr, nullptr);
        vexalive::MixWorker worker;
        vexalive::runWorker("mix", worker);
    }
    std::fprintf(stderr,
                 "usage: vexalive-media relay | mix\nStarted by `vexalive serve --media`; not to be run manually.\n");
    return 2;
}
