// Another process, for what only one of two can have: it does something and then waits until it is killed.
#pragma once

#include <csignal>
#include <cstdlib>
#include <functional>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

class other_process {
  public:
    // Is done with `what` when it is constructed; aborts the test where that fails.
    explicit other_process(const std::function<bool()> &what)
    {
        int ready[2];
        char byte = 0;
        if (pipe(ready) != 0)
            abort();
        id_ = fork();
        if (id_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const bool done = what() && write(ready[1], &byte, 1) == 1;
            while (done)
                pause();
            _exit(1);
        }
        close(ready[1]);
        if (id_ < 0 || read(ready[0], &byte, 1) != 1)
            abort();
        close(ready[0]);
    }
    other_process(const other_process &) = delete;
    other_process &operator=(const other_process &) = delete;
    ~other_process() { kill(); }

    long id() const { return id_; }
    // Ends it without a warning.
    void kill()
    {
        if (id_ <= 0)
            return;
        ::kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
        id_ = 0;
    }

  private:
    pid_t id_ = 0;
};
