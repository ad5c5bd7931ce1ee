// Output of the route and address commands. The interface name goes into
// the next shell command, so nothing but a plain name may pass.
#include <cctype>
#include <cstring>
#include <string_view>

#include "config/identity.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  char name[16];
  if (route_iface_parse(text, name, sizeof(name))) {
    for (const char *p = name; *p; p++)
      if (!isalnum(static_cast<unsigned char>(*p)) && !strchr("._-@", *p))
        __builtin_trap();
  }
  char addr[1024];
  route_addr_parse(text, addr, sizeof(addr));
  return 0;
}
