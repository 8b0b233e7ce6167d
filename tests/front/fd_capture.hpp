// Captures what the code under test writes to a file descriptor (1 or 2) by pointing the
// descriptor at a temporary file for the lifetime of the object.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

class FdCapture {
  public:
    explicit FdCapture(int fd) : fd_(fd) {
        flush();
        char path[] = "/tmp/kiv_front_capture_XXXXXX";
        file_ = ::mkstemp(path);
        ::unlink(path);
        saved_ = ::dup(fd_);
        ::dup2(file_, fd_);
    }
    ~FdCapture() {
        restore();
        if (file_ >= 0) ::close(file_);
    }
    FdCapture(const FdCapture &) = delete;
    FdCapture &operator=(const FdCapture &) = delete;

    // Puts the descriptor back and returns everything written to it meanwhile.
    std::string text() {
        restore();
        std::string out;
        char buf[4096];
        ::lseek(file_, 0, SEEK_SET);
        ssize_t n;
        while ((n = ::read(file_, buf, sizeof buf)) > 0)
            out.append(buf, static_cast<std::size_t>(n));
        return out;
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
