// The environment of one case of the fault matrix: the server on the port that the adapter knows, and the delivery of
// its responses.

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

    // Replaces the server. The connections of the previous one are closed.
    void serve(ScriptedServer::Script script) { serve({}, std::move(script)); }
    void serve(ScriptedServer::Options options, ScriptedServer::Script script);
    void stopServing();

    // Owned by the environment until the case ends.
    void own(std::shared_ptr<void> object) { mOwned.push_back(std::move(object)); }

    // The case cannot run on this machine.
    void skip(const std::string& reason) { mReasonToSkip = reason; }
    const std::string& reasonToSkip() const { return mReasonToSkip; }

    // Sets what runs once the operation has been called.
    void meanwhile(std::function<void()> action) { mMeanwhile = std::move(action); }
    void runMeanwhile();

    // Holds the next responses before they reach the adapter; each `pass` releases one.
    void hold(int responses) { mExchanges->toHold = responses; }
    void awaitResponse(size_t number) { mExchanges->held.waitFor(number); }  // counted from the first held one
    void pass() { mExchanges->passed.add(true); }

    // Complete requests, counted where the server reads them.
    std::string readRequest(Connection& connection);
    void count(const std::string& request);
    void countUnread() { ++mRequests; }
    int requests() const { return mRequests; }
    int otherRequests() const { return mOtherRequests; }

    // The bodies of the kind's sends, as the adapter made them.
    std::vector<std::string> sends() const { return mExchanges->sends.all(); }

private:
    // Of the kind under test. Shared with the observer, whose last call may outlast the environment.
    struct Exchanges {
        std::string interfaceName;
        std::atomic<int> toHold{0};
        Journal<std::string> sends;
        Journal<bool> held;
        Journal<bool> passed;

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

// Moves this thread and those that it starts to a network namespace with loopback only. Returns the error, if any.
std::string enterOwnNetwork();
void takeLoopbackDown();     // packets are lost
void takeLoopbackAddress();  // sends fail at once: network unreachable

#endif
