// Owns a file descriptor and closes it on every path out of its scope.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>

class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  unique_fd(const unique_fd &) = delete;
  unique_fd &operator=(const unique_fd &) = delete;
  unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
  unique_fd &operator=(unique_fd &&other) noexcept {
    reset(other.release());
    return *this;
  }
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0)
      close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct file_closer {
  void operator()(FILE *fp) const { fclose(fp); }
};
// A stdio stream closed with its owner.
using unique_file = std::unique_ptr<FILE, file_closer>;
