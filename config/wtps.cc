#include "config/wtps.h"

#include <cstring>
#include <string>

#include "config/identity.h"
#include "frame/command.h"
#include "frame/log.h"

wtps_result wtps_parse(std::string_view listing, const char *caller, wtps_mac_fn fn, void *arg) {
  size_t pos = 0;
  while (pos < listing.size()) {
    size_t nl = listing.find('\n', pos);
    if (nl == std::string_view::npos)
      nl = listing.size();
    std::string_view line = listing.substr(pos, nl - pos);
    pos = nl + 1;
    if (!line.empty() && line.back() == '\r')
      line.remove_suffix(1);

    // Blank-separated, runs of blanks count as one; the first token is skipped.
    size_t start = line.find_first_not_of(' ');
    size_t end = start == std::string_view::npos ? start : line.find(' ', start);
    start = end == std::string_view::npos ? end : line.find_first_not_of(' ', end);
    if (start == std::string_view::npos)
      return WTPS_CUT;
    end = line.find(' ', start);
    std::string_view token = line.substr(start, end == std::string_view::npos ? end : end - start);
    if (!qz2fh_mac_text_ok(token)) {
      log_msg_as(caller, DEBUG, "bad mac in wtps listing, line skipped\n");
      continue;
    }
    char mac[QZ_MAC_TEXT_MAX + 1];
    memcpy(mac, token.data(), token.size());
    mac[token.size()] = '\0';
    if (!fn(mac, arg))
      return WTPS_CUT;
  }
  return WTPS_DONE;
}

wtps_result wtps_read(const char *caller, wtps_mac_fn fn, void *arg) {
  std::string listing;
  if (command_read("wum -c wtps", &listing, WTPS_OUTPUT_MAX) < 0)
    return WTPS_FAILED;
  return wtps_parse(listing, caller, fn, arg);
}
