// The netbar group's periodic records: WA_BASIC_FJ_0001 (the place),
// WA_BASIC_FJ_0002 (the vendor), WA_BASIC_FJ_0003_1 and WA_BASIC_FJ_0003_2
// (per access point).
#pragma once

// Set up each dataset with its 300-s timer.
void netbar_basic_0001_init();
void netbar_basic_0002_init();
void netbar_basic_0003_1_init();
void netbar_basic_0003_2_init();
// Their writers: the place, the vendor, and two records for one scanned
// access point. 0 when the record was written.
int netbar_basic_0001_write();
int netbar_basic_0002_write();
int netbar_basic_0003_1_write(const char *mac);
int netbar_basic_0003_2_write(const char *mac);
