#include "config/wtps.h"

#include <cstring>
#include <string>

#include "config/identity.h"
#include "frame/log.h"
#include "frame/text.h"

wtps_result wtps_parse(std::string_view listing, const char *caller, const wtps_mac_fn &fn) {
  size_t pos = 0;
  while (pos < listing.size()) {
    size_t nl = listing.find('\n', pos);
    if (nl == std::string_view::npos)
      nl = listing.size();
    std::string_view line = listing.substr(pos, nl - pos);
    pos = nl + 1;
    if (!line.empty() && line.back() == '\r')
      line.remove_suffix(1);

    // The first token is skipped; the second is the MAC.
    std::string_view tokens[2];
    if (text_split(line, tokens, 2) < 2)
      return WTPS_CUT;
    char mac[QZ_MAC_TEXT_MAX + 1];
    if (!qz2fh_mac_text_ok(tokens[1]) || !text_copy(tokens[1], mac, sizeof(mac))) {
      log_msg_as(caller, DEBUG, "bad mac in wtps listing, line skipped\n");
      continue;
    }
    if (!fn(mac))
      return WTPS_CUT;
  }
  return WTPS_DONE;
}
