// A room member that uses the adapter under test. Its listener signals each successful start.

#ifndef VEXALIVE_BENCH_MEMBER_H
#define VEXALIVE_BENCH_MEMBER_H

#include <memory>
#include <string>

#include "Com/LiveTranscodingAdapter.h"
#include "Signal.h"

namespace bench {

// Drops log lines below warnings and all event reports.
void silenceLogsAndReports();

class Member {
public:
    // Each successful start notifies `done`. If `done` is null, it notifies a signal for waitForOutcome().
    explicit Member(const std::string& userId, Signal* done = nullptr);

    void start();
    void waitForOutcome() { mOwnSignal.wait(); }

private:
    Signal mOwnSignal;
    std::shared_ptr<ILiveTrancodingDelegate> mListener;
    std::shared_ptr<LiveTranscodingAdapter> mAdapter;
    kstmedia::VexaPublishCDNParamInternal mParam;
};

}  // namespace bench

#endif
