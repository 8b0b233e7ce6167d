// Captures what the code under test writes to a file descriptor (1 or 2) by pointing the
// descriptor at an unlinked temporary file for the lifetime of the object.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

class FdCapture {
  public:
    explicit FdCapture(int fd) : fd_(fd) {
        flush();
        char path[] = "/tmp/kiv_capture_XXXXXX";
        file_ = ::mkstemp(path);
        ::unlink(path);
        saved_ = ::dup(fd_);
        ::dup2(file_, fd_);
    }
    ~FdCapture() {
        restore();
        ::close(file_);
    }
    FdCapture(const FdCapture &) = delete;
    FdCapture &operator=(const FdCapture &) = delete;

    // What reached the descriptor so far, without flushing the stdio buffer first.
    std::string peek() const {
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = ::pread(file_, buf, sizeof buf, static_cast<off_t>(out.size()))) > 0;)
            out.append(buf, static_cast<std::size_t>(n));
        return out;
    }
    // Puts the descriptor back and returns everything written to it meanwhile.
    std::string text() {
        restore();
        return peek();
    }

  private:
    void flush() const { std::fflush(fd_ == 1 ? stdout : stderr); }
    void restore() {
        if (saved_ < 0) return;
        flush();
        ::dup2(saved_, fd_);
        ::close(saved_);
        saved_ = -1;
    }

    int fd_;
    int file_ = -1;
    int saved_ = -1;
};
