// Runs a program as a child process and communicates with it through pipes or a pseudo-terminal.

#ifndef VEXALIVE_TESTS_SUPPORT_CHILD_PROCESS_H
#define VEXALIVE_TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

// Not thread-safe. A wait fails after two minutes without output.
class ChildProcess {
public:
    enum Output { kPipes, kTerminal };
    static constexpr int kTerminalColumns = 60;

    // Starts the program. `environment` adds to this process's own; an empty value removes the variable. On a terminal,
    // which becomes the child's controlling one, standard error is a part of standard output.
    ChildProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment,
                 Output output = kPipes);
    ~ChildProcess();  // a child that still runs is killed
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Waits until all standard output so far contains `text` at least `times` times; false if the output ends before.
    bool awaitOutput(const std::string& text, int times = 1);

    void sendSignal(int signal) const;

    // As if typed at the terminal.
    void type(const std::string& keys) const;

    // Closes the read end of standard output, so that the child's writes to it fail.
    void closeOutput();

    // Reads all output to its end. Returns the exit status, or 1000 plus the number of the signal that ended the child.
    int awaitExit();

    const std::string& output() const { return mOutput; }
    const std::string& errors() const { return mErrors; }

private:
    bool readSome();

    pid_t mPid = -1;
    int mOutputFd = -1;
    int mErrorsFd = -1;  // -1 if the child runs on a terminal: mOutputFd then receives both streams
    std::string mOutput;
    std::string mErrors;
};

#endif
