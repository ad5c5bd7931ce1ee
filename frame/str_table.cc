#include "frame/str_table.h"

#include <cstdlib>

GHashTable *str_table_new() {
  return g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, free);
}

void str_table_put(GHashTable *table, const char *key, void *value) {
  // replace, unlike insert, also swaps in the new key pointer, which the
  // old value (about to be freed) may have owned.
  if (g_hash_table_lookup_extended(table, key, nullptr, nullptr))
    g_hash_table_replace(table, const_cast<char *>(key), value);
  else
    g_hash_table_insert(table, const_cast<char *>(key), value);
}

bool str_table_del(GHashTable *table, const char *key) {
  if (!g_hash_table_lookup_extended(table, key, nullptr, nullptr))
    return false;
  return g_hash_table_remove(table, key);
}

void *str_table_get(GHashTable *table, const char *key) { return g_hash_table_lookup(table, key); }
