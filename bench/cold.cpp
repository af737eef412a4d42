// Sends one relay start and exits after the response. bench/run.py measures the whole process and compares it with the
// program `curl`, which sends the same request.

#include "Benchmark.h"
#include "Member.h"

namespace {

void vexalive() {
    bench::silenceLogsAndReports();
    bench::Member member("u-cold");
    member.start();
    member.waitForOutcome();
}

}  // namespace

int main(int argc, char** argv) {
    return bench::runContender(argc, argv, {{"vexalive", vexalive}});
}
