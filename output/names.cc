#include "output/names.h"

#include <cstdio>
#include <cstring>

#include "config/config.h"

namespace {

bool fits(int n, char *out, size_t size) {
  if (n >= 0 && static_cast<size_t>(n) < size)
    return true;
  if (size)
    out[0] = '\0';
  return false;
}

// One field of a name: what the configuration allows in a file name
// part. Empty is allowed, as the configuration allows fh_source_str and
// fh_dst_str to be.
const char *name_part(const char *s, char end) {
  const char *p = s;
  while ((*p >= 'A' && *p <= 'Z') || (*p >= 'a' && *p <= 'z') || (*p >= '0' && *p <= '9') ||
         *p == '_' || *p == '.')
    p++;
  return p - s <= 64 && *p == end ? p + 1 : nullptr;
}

const char *digits(const char *s, char end, size_t min, size_t max) {
  const char *p = s;
  while (*p >= '0' && *p <= '9')
    p++;
  const size_t n = static_cast<size_t>(p - s);
  return n >= min && n <= max && *p == end ? p + 1 : nullptr;
}

const char *literal(const char *s, const char *text) {
  const size_t n = strlen(text);
  return s && strncmp(s, text, n) == 0 ? s + n : nullptr;
}

}  // namespace

bool name_bcp(char *out, size_t size, uint32_t id, time_t when, unsigned sequence,
              const char *dataset) {
  return fits(snprintf(out, size, "%d-%s-%llu-%05d-%s-0.bcp", static_cast<int>(id),
                       qz2fh_get_source_str(), static_cast<unsigned long long>(when),
                       static_cast<int>(sequence), dataset),
              out, size);
}

std::string_view name_bcp_dataset(std::string_view name) {
  constexpr std::string_view tail = "-0.bcp";
  if (name.size() <= tail.size() || name.substr(name.size() - tail.size()) != tail)
    return {};
  name.remove_suffix(tail.size());
  const size_t dash = name.rfind('-');
  return dash == std::string_view::npos ? std::string_view() : name.substr(dash + 1);
}

bool name_zip(char *out, size_t size, uint32_t id, time_t when, unsigned sequence) {
  return fits(snprintf(out, size, "%d-%s-%s-%s-%llu-%05d.zip", static_cast<int>(id),
                       qz2fh_get_org_code(), qz2fh_get_source_str(), qz2fh_get_dst_str(),
                       static_cast<unsigned long long>(when), static_cast<int>(sequence)),
              out, size);
}

bool name_status(char *out, size_t size, time_t when, unsigned sequence) {
  return fits(snprintf(out, size, "145-%s-%llu-%d-DEVICESTATUS-0.bjson", qz2fh_get_source_str(),
                       static_cast<unsigned long long>(when), static_cast<int>(sequence)),
              out, size);
}

bool name_is_own(uint32_t id, const char *name, bool with_suffix) {
  const char *p;
  if (id == 144) {
    p = name_part(literal(name, "145-") ? name + 4 : "", '-');
    p = p ? digits(p, '-', 1, 20) : nullptr;
    p = p ? digits(p, '-', 1, 10) : nullptr;
    p = literal(p, "DEVICESTATUS-0.bjson");
  } else {
    char head[16];
    snprintf(head, sizeof(head), "%d-", static_cast<int>(id));
    p = literal(name, head);
    for (int i = 0; p && i < 3; i++)
      p = name_part(p, '-');
    p = p ? digits(p, '-', 1, 20) : nullptr;
    p = p ? digits(p, '.', 5, 5) : nullptr;
    p = literal(p, "zip");
  }
  if (p && *p == '.' && with_suffix)
    p = digits(p + 1, '\0', 1, 2) ? "" : nullptr;
  return p && *p == '\0';
}

bool name_kept(char *out, size_t size, const char *name, int k) {
  return k >= 0 && k < 100 &&
         fits(k ? snprintf(out, size, "%s.%d", name, k) : snprintf(out, size, "%s", name), out, size);
}

bool name_path(char *out, size_t size, const char *dir, const char *name, bool next) {
  return fits(next ? snprintf(out, size, "%s/%s/%s", dir, NAME_NEXT_DIR, name)
                   : snprintf(out, size, "%s/%s", dir, name),
              out, size);
}
