#include "tools/CommandLine.h"
#include "tools/Signals.h"

int main(int argc, char** argv) {
    vexalive::blockStopSignals();
    return vexalive::runCommandLine(argc, argv);
}
