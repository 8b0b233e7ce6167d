// RAII owners for stdio streams and file descriptors, so that every return path
// releases what it opened.
#pragma once

#include <cstdio>
#include <unistd.h>

class StdioFile {
  public:
    StdioFile(const char *path, const char *mode) : f_(std::fopen(path, mode)) {}
    ~StdioFile() {
        if (f_) std::fclose(f_);
    }
    StdioFile(const StdioFile &) = delete;
    StdioFile &operator=(const StdioFile &) = delete;

    explicit operator bool() const { return f_ != nullptr; }
    std::FILE *get() const { return f_; }
    // Closes now and reports the result; a failed close fails the whole operation.
    int close() {
        int r = f_ ? std::fclose(f_) : -1;
        f_ = nullptr;
        return r;
    }

  private:
    std::FILE *f_;
};

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    Fd(Fd &&o) noexcept : fd_(o.release()) {}
    Fd &operator=(Fd &&o) noexcept {
        if (this != &o) {
            reset();
            fd_ = o.release();
        }
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    int reset() {
        int r = 0;
        if (fd_ >= 0) r = ::close(fd_);
        fd_ = -1;
        return r;
    }

  private:
    int fd_ = -1;
};
