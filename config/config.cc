#include "config/config.h"

#include <jansson.h>

#include <cstring>
#include <string>
#include <string_view>

#include "frame/log.h"
#include "frame/paths.h"

namespace {

enum config_key {
#define QZ_CONFIG_KEY(name, file_name_part) CFG_##name,
#include "config/config_keys.def"
  CFG_KEY_COUNT
};
// KEY_<name>: the name of an optional key, read by a function of its own.
#define QZ_CONFIG_OPTIONAL_KEY(name) constexpr char KEY_##name[] = #name;
#include "config/config_keys.def"

struct config_attr {
  const char *name;
  // The value becomes part of file names, commands and the status file:
  // only letters, digits, "_" and "." keep those well-formed, and a long
  // value would not fit the 256-byte names.
  bool file_name_part;
};

constexpr size_t FILE_NAME_PART_MAX = 64;

// Read in this order; the first missing key ends the load.
constexpr config_attr config_attrs[CFG_KEY_COUNT] = {
#define QZ_CONFIG_KEY(name, file_name_part) {#name, file_name_part},
#include "config/config_keys.def"
};

const char *config_values[CFG_KEY_COUNT];
const char *unsent_dir;  // optional: null when absent or empty
json_t *config_doc;
unsigned config_generation;

}  // namespace

const char *qz2fh_get_netbar_property_str() { return config_values[CFG_fh_netbar_property_str]; }
const char *qz2fh_get_netbar_type_str() { return config_values[CFG_fh_netbar_type_str]; }
const char *qz2fh_get_netbar_name() { return config_values[CFG_fh_netbar_name]; }
const char *qz2fh_get_equipment_name() { return config_values[CFG_fh_equipment_name]; }
const char *qz2fh_get_source_str() { return config_values[CFG_fh_source_str]; }
const char *qz2fh_get_address() { return config_values[CFG_fh_address]; }
const char *qz2fh_get_dst_str() { return config_values[CFG_fh_dst_str]; }
const char *qz2fh_get_longitude() { return config_values[CFG_fh_longitude]; }
const char *qz2fh_get_latitude() { return config_values[CFG_fh_latitude]; }
const char *qz2fh_get_org_name() { return config_values[CFG_fh_org_name]; }
const char *qz2fh_get_org_tel_num() { return config_values[CFG_fh_org_tel_num]; }
const char *qz2fh_get_org_mail() { return config_values[CFG_fh_org_mail]; }
const char *qz2fh_get_org_address() { return config_values[CFG_fh_org_address]; }
const char *qz2fh_get_ftp_ip() { return config_values[CFG_fh_ftp_ip]; }
const char *qz2fh_get_ftp_port() { return config_values[CFG_fh_ftp_port]; }
const char *qz2fh_get_ftp_username() { return config_values[CFG_fh_ftp_username]; }
const char *qz2fh_get_ftp_password() { return config_values[CFG_fh_ftp_password]; }
const char *qz2fh_get_unsent_dir() { return unsent_dir; }

const char *qz2fh_get_org_code() { return "507183926"; }
int qz2fh_get_equipment_type() { return 1; }
const char *qz2fh_get_contactor() { return "maple"; }

namespace {

// A control character would split or shift every record line the value is
// written into; none has a place in these texts.
bool has_control_char(const char *s, size_t len) {
  for (size_t i = 0; i < len; i++) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x20 || c == 0x7f)
      return true;
  }
  return false;
}

bool file_name_part_ok(const char *s, size_t len) {
  if (len > FILE_NAME_PART_MAX)
    return false;
  for (size_t i = 0; i < len; i++) {
    const char c = s[i];
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' ||
          c == '.'))
      return false;
  }
  return true;
}

const char *config_get_string(json_t *doc, const config_attr &attr) {
  json_t *value = json_object_get(doc, attr.name);
  const char *text = json_string_value(value);
  if (!text) {
    log_msg(ERROR, "%s is not in config or not string", attr.name);
    return nullptr;
  }
  const size_t len = json_string_length(value);
  if (has_control_char(text, len) || strlen(text) != len) {
    log_msg(ERROR, "%s holds a control character, refused", attr.name);
    return nullptr;
  }
  if (attr.file_name_part && !file_name_part_ok(text, len)) {
    log_msg(ERROR,
            "%s is part of file names: only letters, digits, \"_\" and \".\", at most %d, refused",
            attr.name, static_cast<int>(FILE_NAME_PART_MAX));
    return nullptr;
  }
  return text;
}

constexpr auto &UNSENT_DIR_KEY = KEY_fh_unsent_dir;
constexpr size_t UNSENT_DIR_MAX = 128;

// The path as the kernel reads it when no link is involved: "//", "/./"
// and a trailing "/" or "/." dropped, so that "//tmp", "/./tmp" and
// "/tmp//145/" compare as what they name. ".." is refused before.
std::string canonical_path(std::string_view path) {
  std::string out;
  while (!path.empty()) {
    const size_t slash = path.find('/');
    const std::string_view part = path.substr(0, slash);
    if (!part.empty() && part != ".") {
      out += '/';
      out += part;
    }
    if (slash == std::string_view::npos)
      break;
    path.remove_prefix(slash + 1);
  }
  return out.empty() ? "/" : out;
}

// The directory is created and written by the daemon and named in the
// README as the place for unsent files, so it must be a plain absolute
// path that cannot reach above itself or into the spool directories,
// which are emptied at every cycle (nor be /tmp, whose group directories
// are the spool directories).
bool unsent_dir_ok(const char *s, size_t len) {
  if (len == 0 || len > UNSENT_DIR_MAX || s[0] != '/' || strstr(s, "..") != nullptr)
    return false;
  for (size_t i = 0; i < len; i++) {
    const char c = s[i];
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '/' ||
          c == '_' || c == '-' || c == '.'))
      return false;
  }
  const std::string path = canonical_path(std::string_view(s, len));
  if (path == "/tmp")
    return false;
  for (const char *spool : {"/tmp/144", "/tmp/145", "/tmp/146"}) {
    const size_t n = strlen(spool);
    if (path.compare(0, n, spool) == 0 && (path.size() == n || path[n] == '/'))
      return false;
  }
  return true;
}

// Absent and "" both mean no durable mode; any other value must be usable.
bool read_unsent_dir(json_t *doc, const char **out) {
  json_t *value = json_object_get(doc, UNSENT_DIR_KEY);
  *out = nullptr;
  if (!value)
    return true;
  const char *text = json_string_value(value);
  if (!text) {
    log_msg_as("qz2fh_config_init", ERROR, "%s is not a string, refused", UNSENT_DIR_KEY);
    return false;
  }
  const size_t len = json_string_length(value);
  if (len == 0)
    return true;
  if (strlen(text) != len || !unsent_dir_ok(text, len)) {
    log_msg_as("qz2fh_config_init", ERROR,
               "%s must be an absolute path of letters, digits, \"/\", \"_\", \"-\" and \".\", "
               "without \"..\", at most %d characters, outside /tmp/144, /tmp/145 and /tmp/146, "
               "refused",
               UNSENT_DIR_KEY, static_cast<int>(UNSENT_DIR_MAX));
    return false;
  }
  *out = text;
  return true;
}

}  // namespace

int qz2fh_config_load(const char *path) {
  // The body of qz2fh_config_init, and reported under that name.
  static const char func[] = "qz2fh_config_init";
  json_error_t error;
  json_t *doc = json_load_file(path, 0, &error);
  if (!doc) {
    log_msg_as(func, ERROR, "load file:%s failed!", path);
    return 1;
  }
  const char *values[CFG_KEY_COUNT];
  for (int i = 0; i < CFG_KEY_COUNT; i++) {
    values[i] = config_get_string(doc, config_attrs[i]);
    if (!values[i]) {
      log_msg_as(func, ERROR, "%s is null!", config_attrs[i].name);
      json_decref(doc);
      return 1;
    }
  }
  const char *unsent = nullptr;
  if (!read_unsent_dir(doc, &unsent)) {
    json_decref(doc);
    return 1;
  }
  // Only a complete load replaces what the getters return.
  json_decref(config_doc);
  config_doc = doc;
  memcpy(config_values, values, sizeof(values));
  unsent_dir = unsent;
  config_generation++;
  return 0;
}

int qz2fh_config_init() { return qz2fh_config_load(QZ_CONFIG_PATH); }

unsigned qz2fh_config_generation() { return config_generation; }
