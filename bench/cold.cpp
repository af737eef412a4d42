// A process that makes one relay start and exits after its response. bench/run.py measures the process from outside and
// compares it with `curl` and the same request.

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
