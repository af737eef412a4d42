// From the start of the process to the first answer: one relay start, and an end without further ado. bench/run.py
// takes the time from outside, beside `curl` with the same request.

#include "Contest.h"
#include "Member.h"

namespace {

void vexalive() {
    bench::quiet();
    bench::Member member("u-cold");
    member.start();
    member.waitUntilTold();
}

}  // namespace

int main(int argc, char** argv) {
    return bench::contest(argc, argv, {{"vexalive", vexalive}});
}
