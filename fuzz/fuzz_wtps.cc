// The access-point listing of "wum -c wtps".
#include <string_view>

#include "config/identity.h"
#include "config/wtps.h"

namespace {

bool check(const char *mac) {
  // Only texts safe for records and paths may come out.
  if (!qz2fh_mac_text_ok(mac))
    __builtin_trap();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  wtps_parse(std::string_view(reinterpret_cast<const char *>(data), size), "fuzz", check);
  return 0;
}
