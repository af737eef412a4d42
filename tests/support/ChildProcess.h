// A program as a child process, driven through pipes or a pseudo-terminal.

#ifndef VEXALIVE_TESTS_SUPPORT_CHILD_PROCESS_H
#define VEXALIVE_TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

// For one thread. A wait ends without success after two minutes without output.
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

    // Reads until standard output holds `text`, from the beginning, `times` times; false if it ends before.
    bool awaitOutput(const std::string& text, int times = 1);

    void sendSignal(int signal) const;

    // As if typed at the terminal.
    void type(const std::string& keys) const;

    // Closes this end of standard output: writes to it fail.
    void closeOutput();

    // Reads all output to its end; the exit status, or 1000 and the number of the signal that ended it.
    int awaitExit();

    const std::string& output() const { return mOutput; }
    const std::string& errors() const { return mErrors; }

private:
    bool readSome();

    pid_t mPid = -1;
    int mOutputFd = -1;
    int mErrorsFd = -1;  // -1 on a terminal
    std::string mOutput;
    std::string mErrors;
};

#endif
