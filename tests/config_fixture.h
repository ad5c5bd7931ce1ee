// For test, fuzz and benchmark programs: a configuration built on the
// daemon's own key list, so that a key added there or renamed needs its
// value here before any of them runs.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

// (key, value as JSON text) pairs.
using config_fixture_values = std::vector<std::pair<std::string, std::string>>;

// JSON text of every key, in the daemon's order, with ordinary values (the
// unit tests' expected lines are written for them). An entry of changes
// replaces a value, or with "" removes the key; other keys go last.
inline std::string config_fixture_json(const config_fixture_values &changes = {}) {
  static const char *const keys[] = {
#define QZ_CONFIG_KEY(name, file_name_part) #name,
#include "config/config_keys.def"
  };
  config_fixture_values kv = {
      {"fh_netbar_property_str", "\"1\""}, {"fh_netbar_type_str", "\"2\""},
      {"fh_netbar_name", "\"Cafe\""},      {"fh_equipment_name", "\"AP-01\""},
      {"fh_source_str", "\"350100\""},     {"fh_address", "\"Main Street 1\""},
      {"fh_dst_str", "\"350000\""},        {"fh_longitude", "\"119.30\""},
      {"fh_latitude", "\"26.08\""},        {"fh_org_name", "\"OrgA\""},
      {"fh_org_tel_num", "\"555\""},       {"fh_org_mail", "\"box1\""},
      {"fh_org_address", "\"Road 5\""},    {"fh_ftp_ip", "\"127.0.0.1\""},
      {"fh_ftp_port", "\"2121\""},         {"fh_ftp_username", "\"user\""},
      {"fh_ftp_password", "\"secret\""},
  };
  if (!std::equal(kv.begin(), kv.end(), std::begin(keys), std::end(keys),
                  [](const auto &p, const char *key) { return p.first == key; })) {
    fputs("config_fixture.h: the values do not follow config/config_keys.def\n", stderr);
    abort();
  }
  for (const auto &c : changes) {
    auto it = std::find_if(kv.begin(), kv.end(), [&](const auto &p) { return p.first == c.first; });
    if (it != kv.end() && c.second.empty())
      kv.erase(it);
    else if (it != kv.end())
      it->second = c.second;
    else
      kv.push_back(c);
  }
  std::string json = "{";
  for (size_t i = 0; i < kv.size(); i++)
    json += (i ? ", \"" : "\"") + kv[i].first + "\": " + kv[i].second;
  return json + "}";
}
