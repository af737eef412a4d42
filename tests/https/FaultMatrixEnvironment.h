// The environment of one case of the fault matrix: the server on the adapter's service port, and control over the
// moment at which the adapter receives its responses.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_ENVIRONMENT_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_ENVIRONMENT_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "support/RoomMember.h"
#include "support/ScriptedServer.h"

class CaseEnvironment {
public:
    using Connection = ScriptedServer::Connection;

    // `isExpected` recognises a request of the kind under test.
    CaseEnvironment(int port, const std::string& interfaceName,
                    std::function<bool(const std::string& request)> isExpected);
    ~CaseEnvironment();
    CaseEnvironment(const CaseEnvironment&) = delete;
    CaseEnvironment& operator=(const CaseEnvironment&) = delete;

    int port() const { return mPort; }

    // Replaces the server. The connections of the previous server are closed.
    void serve(ScriptedServer::Script script) { serve({}, std::move(script)); }
    void serve(ScriptedServer::Options options, ScriptedServer::Script script);
    void stopServing();

    // The environment owns the object until the case ends.
    void own(std::shared_ptr<void> object) { mOwned.push_back(std::move(object)); }

    // Marks the case as one that cannot run on this machine.
    void skip(const std::string& reason) { mReasonToSkip = reason; }
    const std::string& reasonToSkip() const { return mReasonToSkip; }

    // Sets an action for the test's thread. It runs right after the call of the operation under test.
    void meanwhile(std::function<void()> action) { mMeanwhile = std::move(action); }
    void runMeanwhile();

    // The next `responses` responses are held before they reach the adapter; each `pass` releases one.
    void hold(int responses) { mExchanges->toHold = responses; }
    void awaitResponse(size_t number) { mExchanges->held.waitFor(number); }  // 1: the first held response
    void pass() { mExchanges->passed.add(true); }

    // Complete requests, counted by the server that reads them. `countUnparsed` assumes the kind under test.
    std::string readRequest(Connection& connection);
    void count(const std::string& request);
    void countUnparsed() { ++mRequests; }
    int requests() const { return mRequests; }            // of the kind under test
    int otherRequests() const { return mOtherRequests; }  // of other kinds

    // The bodies of the kind's sends, as the adapter made them.
    std::vector<std::string> sends() const { return mExchanges->sends.all(); }

private:
    // Exchanges of the interface under test. Shared with the observer: its last call may come after the destructor.
    struct Exchanges {
        std::string interfaceName;
        std::atomic<int> toHold{0};
        Journal<std::string> sends;
        Journal<bool> held;    // one entry for each response that was held
        Journal<bool> passed;  // one entry for each response that was released

        void observe(const vexalive::HttpExchange& exchange);
    };

    const int mPort;
    const std::shared_ptr<Exchanges> mExchanges = std::make_shared<Exchanges>();
    const std::function<bool(const std::string&)> mIsExpected;
    std::string mReasonToSkip;
    std::function<void()> mMeanwhile;
    std::atomic<int> mRequests{0};
    std::atomic<int> mOtherRequests{0};
    std::unique_ptr<ScriptedServer> mServer;
    std::vector<std::shared_ptr<void>> mOwned;
};

// Moves this thread, and threads that it starts, to a network namespace with loopback only. Returns the error, if any.
std::string enterOwnNetwork();
void takeLoopbackDown();       // from then on, packets are lost
void removeLoopbackAddress();  // from then on, each send fails at once with "network unreachable"

#endif
