#pragma once

#include <signal.h>

#include <pthread.h>

namespace queue {

// Threads that are made while it exists get no signals, which are the program's business and not that of a library's
// threads; those of a fault stay with the thread.
class WithoutSignals {
public:
    WithoutSignals() {
        sigset_t most;
        ::sigfillset(&most);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) ::sigdelset(&most, fault);
        ::pthread_sigmask(SIG_SETMASK, &most, &before_);
    }
    WithoutSignals(const WithoutSignals&) = delete;
    WithoutSignals& operator=(const WithoutSignals&) = delete;
    ~WithoutSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

}  // namespace queue
