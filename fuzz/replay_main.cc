// A fuzz target's entry point behind a plain main, for builds without
// libFuzzer (cross compilers, qemu-user): replays the given files, or every
// file of the given directories in name order, and fails if none was read.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool read_file(const std::string &path, std::vector<uint8_t> *out) {
  FILE *f = fopen(path.c_str(), "rb");
  if (!f)
    return false;
  uint8_t buf[4096];
  size_t n;
  out->clear();
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
    out->insert(out->end(), buf, buf + n);
  const bool ok = !ferror(f);
  fclose(f);
  return ok;
}

void add_inputs(const std::string &path, std::vector<std::string> *files) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    files->push_back(path);
    return;
  }
  std::vector<std::string> names;
  if (DIR *d = opendir(path.c_str())) {
    while (const dirent *e = readdir(d))
      if (e->d_name[0] != '.')
        names.push_back(path + "/" + e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  files->insert(files->end(), names.begin(), names.end());
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; i++)
    add_inputs(argv[i], &files);
  // Every input is read before the first run: a target's set-up mounts a
  // private /tmp, which would hide a checkout under /tmp.
  std::vector<std::vector<uint8_t>> inputs(files.size());
  for (size_t i = 0; i < files.size(); i++) {
    if (!read_file(files[i], &inputs[i])) {
      perror(files[i].c_str());
      return 1;
    }
  }
  for (const std::vector<uint8_t> &data : inputs) {
    static const uint8_t empty = 0;  // libFuzzer never passes null
    LLVMFuzzerTestOneInput(data.empty() ? &empty : data.data(), data.size());
  }
  printf("%zu inputs replayed\n", files.size());
  return files.empty() ? 1 : 0;
}
