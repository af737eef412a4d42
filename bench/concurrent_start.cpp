// Starts a relay on 1,000 adapters at the same time and waits for the last listener call. The reference sends the same
// requests with 1,000 prepared easy handles in one libcurl multi handle on one thread. No connection is open before.

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BareCurl.h"
#include "Benchmark.h"
#include "Member.h"

namespace {

constexpr int kAdapters = 1000;
constexpr std::chrono::milliseconds kSettling(300);  // time for the workers to become idle

// Runs `prepare`, then measures `start`. `start` must return after the last response.
template <class Prepare, class Start>
void measure(Prepare prepare, Start start) {
    const double resident = bench::residentBytes();
    prepare();
    std::this_thread::sleep_for(kSettling);
    const double begun = bench::seconds();
    const double cpu = bench::cpuSeconds();
    start();
    bench::print("wall_ms", (bench::seconds() - begun) * 1e3);
    bench::print("cpu_ms", (bench::cpuSeconds() - cpu) * 1e3);
    bench::print("resident_bytes_each", (bench::peakResidentBytes() - resident) / kAdapters);
    bench::print("threads", bench::threads());
    bench::print("connections", bench::connectionsTo(bench::servicePort()));
}

void vexalive() {
    bench::silenceLogsAndReports();
    bench::Signal done;
    std::vector<std::unique_ptr<bench::Member>> members;
    measure(
        [&] {
            for (int i = 0; i < kAdapters; ++i) {
                members.push_back(std::make_unique<bench::Member>("u-" + std::to_string(i), &done));
            }
        },
        [&] {
            for (const auto& member : members) {
                member->start();
            }
            done.wait(kAdapters);
        });
}

void multi() {
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_CONCURRENT_STREAMS, 1000L);
    std::vector<std::unique_ptr<bench::BareEasy>> handles;
    measure(
        [&] {
            for (int i = 0; i < kAdapters; ++i) {
                handles.push_back(std::make_unique<bench::BareEasy>());
                curl_easy_setopt(handles.back()->handle(), CURLOPT_PRIVATE, handles.back().get());
            }
        },
        [&] {
            for (const auto& each : handles) {
                curl_multi_add_handle(multi, each->handle());
            }
            for (int completed = 0; completed < kAdapters;) {
                int running = 0;
                curl_multi_perform(multi, &running);
                int left = 0;
                while (const CURLMsg* message = curl_multi_info_read(multi, &left)) {
                    bench::BareEasy* easy = nullptr;
                    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &easy);
                    easy->expectSuccess(message->data.result);
                    ++completed;
                }
                if (completed < kAdapters) {
                    curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
                }
            }
        });
    for (const auto& each : handles) {
        curl_multi_remove_handle(multi, each->handle());
    }
    curl_multi_cleanup(multi);
}

}  // namespace

int main(int argc, char** argv) {
    return bench::runContender(argc, argv, {{"vexalive", vexalive}, {"multi", multi}});
}
