#include "frame/str_table.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

struct entry {
  char key[16];
  int value;
};

entry *make(const char *key, int value) {
  auto *e = static_cast<entry *>(malloc(sizeof(entry)));
  snprintf(e->key, sizeof(e->key), "%s", key);
  e->value = value;
  return e;
}

// Under ASan a double free, a leak of a replaced value or a read of a
// freed key would fail these.
TEST(StrTable, ReplaceFreesOldValueAndKeepsNewKey) {
  GHashTable *t = str_table_new();
  entry *first = make("aa", 1);
  str_table_put(t, first->key, first);
  entry *second = make("aa", 2);
  str_table_put(t, second->key, second);  // frees first, whose key was stored
  EXPECT_EQ(g_hash_table_size(t), 1u);
  auto *got = static_cast<entry *>(str_table_get(t, "aa"));
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->value, 2);
  EXPECT_TRUE(str_table_del(t, "aa"));
  EXPECT_FALSE(str_table_del(t, "aa"));
  EXPECT_EQ(str_table_get(t, "aa"), nullptr);
  g_hash_table_destroy(t);
}

}  // namespace
