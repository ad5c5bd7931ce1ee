// The netbar group's periodic records: WA_BASIC_FJ_0001 (the place),
// WA_BASIC_FJ_0002 (the vendor), WA_BASIC_FJ_0003_1 and WA_BASIC_FJ_0003_2
// (per access point).
#pragma once

// Set up each dataset with its 300-s timer, which writes its records.
void netbar_basic_0001_init();
void netbar_basic_0002_init();
void netbar_basic_0003_1_init();
void netbar_basic_0003_2_init();
