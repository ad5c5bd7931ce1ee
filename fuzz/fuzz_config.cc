// The configuration document.
#include <cstdio>
#include <cstring>

#include "config/config.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup();
  FILE *f = fopen("/tmp/fuzz_input.json", "w");
  if (!f)
    return 0;
  fwrite(data, 1, size, f);
  fclose(f);
  if (qz2fh_config_load("/tmp/fuzz_input.json") == 0) {
    // A loaded value never holds what would break a record line.
    if (strpbrk(qz2fh_get_netbar_name(), "\t\n\r") || strchr(qz2fh_get_source_str(), '/'))
      __builtin_trap();
  }
  return 0;
}
