// A member of a room with the adapter under test, and a listener that counts what it is told.

#ifndef VEXALIVE_BENCH_MEMBER_H
#define VEXALIVE_BENCH_MEMBER_H

#include <memory>
#include <string>

#include "Com/LiveTranscodingAdapter.h"
#include "Signal.h"

namespace bench {

// Log lines and reports go nowhere, as in a host that logs warnings only and keeps its reports elsewhere.
void quiet();

class Member {
public:
    // `told` is given for each outcome; by default the member's own.
    explicit Member(const std::string& userId, Signal* told = nullptr);

    void start();
    void waitUntilTold() { mOwn.take(); }

private:
    Signal mOwn;
    std::shared_ptr<ILiveTrancodingDelegate> mListener;
    std::shared_ptr<LiveTranscodingAdapter> mAdapter;
    kstmedia::VexaPublishCDNParamInternal mParam;
};

}  // namespace bench

#endif
