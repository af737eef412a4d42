// Measures sequential relay starts over an open connection, each from the start call to the listener call. The
// references send the same request with libcurl alone. "easy" is one easy handle that blocks the caller. "multi" is a
// multi handle with its own thread, the simplest design that does not block the caller.

#include "BareCurl.h"
#include "Benchmark.h"
#include "Member.h"

namespace {

constexpr int kWarmUp = 100;
constexpr int kRequests = 3000;

// `request` sends one request and returns after the response.
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
    bench::silenceLogsAndReports();
    bench::Member member("u-request");
    measure([&member] {
        member.start();
        member.waitForOutcome();
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
        curl.send([&done] { done.notify(); });
        done.wait();
    });
}

}  // namespace

int main(int argc, char** argv) {
    return bench::runContender(argc, argv, {{"vexalive", vexalive}, {"easy", easy}, {"multi", multi}});
}
