// Online/offline datagrams, through the whole handling path.
#include <cstring>

#include "fuzz/fuzz_support.h"
#include "netbar/netbar_group.h"
#include "netbar/netbar_terminal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup_netbar();
  // The socket hands over at most this much; copy so ASan sees the bound.
  uint8_t buf[NETBAR_SHELL_MSG_MAX];
  const size_t len = size < sizeof(buf) ? size : sizeof(buf);
  memcpy(buf, data, len);
  netbar_shell_process(buf, len);
  fuzz_maybe_archive();
  return 0;
}
