// One finished relay start after another over a warm connection, from the public call to the listener; beside the same
// request by libcurl alone: one handle that blocks its caller, and the least that does not, a multi handle on a thread
// of its own.

#include "BareCurl.h"
#include "Contest.h"
#include "Member.h"

namespace {

constexpr int kWarmUp = 100;
constexpr int kRequests = 3000;

// `request` returns when its answer has come.
template <class F>
void measure(F request) {
    for (int i = 0; i < kWarmUp; ++i) {
        request();
    }
    std::vector<double> microseconds;
    microseconds.reserve(kRequests);
    const double cpu = bench::cpuSeconds();
    for (int i = 0; i < kRequests; ++i) {
        const double begun = bench::seconds();
        request();
        microseconds.push_back((bench::seconds() - begun) * 1e6);
    }
    bench::print("cpu_us_per_request", (bench::cpuSeconds() - cpu) * 1e6 / kRequests);
    bench::print("wall_us_p50", bench::percentile(microseconds, 0.5));
    bench::print("wall_us_p99", bench::percentile(microseconds, 0.99));
    bench::print("peak_resident_bytes", bench::peakResidentBytes());
    bench::print("anonymous_bytes", bench::anonymousBytes());
}

void vexalive() {
    bench::quiet();
    bench::Member member("u-request");
    measure([&member] {
        member.start();
        member.waitUntilTold();
    });
}

void easy() {
    bench::BareEasy curl;
    measure([&curl] { curl.perform(); });
}

void multi() {
    bench::BareMulti curl;
    measure([&curl] {
        bench::Signal done;
        curl.send([&done] { done.give(); });
        done.take();
    });
}

}  // namespace

int main(int argc, char** argv) {
    return bench::contest(argc, argv, {{"vexalive", vexalive}, {"easy", easy}, {"multi", multi}});
}
