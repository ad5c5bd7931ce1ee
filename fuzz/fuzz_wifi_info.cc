// The router's wireless status lines.
#include <cstring>

#include "config/identity.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // As read from the file: at most 1023 bytes, then a terminator.
  char text[1024];
  const size_t len = size < sizeof(text) - 1 ? size : sizeof(text) - 1;
  memcpy(text, data, len);
  text[len] = '\0';
  wifi_info info;
  if (wifi_info_parse(text, len, &info)) {
    if (strlen(info.ap_mac) >= sizeof(info.ap_mac) || strchr(info.ap_mac, '\t'))
      __builtin_trap();
  }
  return 0;
}
