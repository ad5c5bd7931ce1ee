// Reading a directory's names at once, for the few places that list one.
#pragma once

// The names in a directory, sorted, without "." and ".." (empty when it
// cannot be read).
class dir_listing {
 public:
  explicit dir_listing(const char *dir);
  ~dir_listing();
  dir_listing(const dir_listing &) = delete;
  dir_listing &operator=(const dir_listing &) = delete;
  int size() const { return count_; }
  const char *name(int i) const;

 private:
  struct dirent **names_ = nullptr;
  int count_ = 0;
};
