// Holds every signal back for the life of the object, then restores the mask it found.
// The process guard's handlers log through syslog() and stdio; a handler that interrupts
// the same code in the main flow would wait forever on a lock the main flow holds. Code
// that enters such a library section (writing a log message, a time conversion) holds
// the signals while it is inside; a signal that arrives meanwhile runs its handler after.
#pragma once

#include <csignal>

class SignalsHeld {
  public:
    SignalsHeld() {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, &saved_);
    }
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &saved_, nullptr); }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;

  private:
    sigset_t saved_;
};
