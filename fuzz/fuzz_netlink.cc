// Netlink event messages, through the whole handling path.
#include <cstring>

#include "fuzz/fuzz_support.h"
#include "netbar/netbar_group.h"
#include "netbar/netbar_netlink.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup_netbar();
  uint8_t buf[NETLINK_MSG_MAX];
  const size_t len = size < sizeof(buf) ? size : sizeof(buf);
  memcpy(buf, data, len);
  netbar_netlink_process(buf, len);
  fuzz_maybe_archive();
  return 0;
}
