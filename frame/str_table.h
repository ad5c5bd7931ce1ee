// String-keyed tables that own their values. A key is never copied or
// freed: it must live inside the value record it belongs to.
#pragma once

#include <glib.h>

GHashTable *str_table_new();
// Stores value under key; a value already stored under an equal key is
// freed and replaced, and the entry then holds this key pointer.
void str_table_put(GHashTable *table, const char *key, void *value);
// Removes and frees the entry; false when the key is absent.
bool str_table_del(GHashTable *table, const char *key);
// The value, still owned by the table, or null.
void *str_table_get(GHashTable *table, const char *key);
