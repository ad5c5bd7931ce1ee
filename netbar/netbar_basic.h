// The netbar group's periodic records: WA_BASIC_FJ_0001 (the place),
// WA_BASIC_FJ_0002 (the vendor), WA_BASIC_FJ_0003_1 and WA_BASIC_FJ_0003_2
// (per access point).
#pragma once

#include "output/bcp_dataset.h"

// The four datasets as the group declares them, in index order.
constexpr int NETBAR_BASIC_DATASETS = 4;
extern const bcp_dataset_decl netbar_basic_datasets[NETBAR_BASIC_DATASETS];

// Gives the writers their datasets: the group's four, in the order above,
// from datasets on.
void netbar_basic_init(bcp_dataset *datasets);

// The writers: the place, the vendor, and two records for one scanned
// access point. 0 when the record was written.
int netbar_basic_0001_write();
int netbar_basic_0002_write();
int netbar_basic_0003_1_write(const char *mac);
int netbar_basic_0003_2_write(const char *mac);
