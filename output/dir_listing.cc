#include "output/dir_listing.h"

#include <dirent.h>

#include <cstdlib>
#include <cstring>

dir_listing::dir_listing(const char *dir) {
  count_ = scandir(dir, &names_, nullptr, alphasort);
  if (count_ < 0)
    count_ = 0;
  // "." and ".." sort first: drop them.
  int kept = 0;
  for (int i = 0; i < count_; i++) {
    const char *n = names_[i]->d_name;
    if (strcmp(n, ".") == 0 || strcmp(n, "..") == 0)
      free(names_[i]);
    else
      names_[kept++] = names_[i];
  }
  count_ = kept;
}

dir_listing::~dir_listing() {
  for (int i = 0; i < count_; i++)
    free(names_[i]);
  free(names_);
}

const char *dir_listing::name(int i) const { return names_[i]->d_name; }
