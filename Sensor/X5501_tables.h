// X5501_tables: the MT9M114 register tables of the X5501 and X5503 engines.
//
// The core table (43 rows: output and PLL set-up, the 1280 x 800 window
// with 925 frame lines of 1726 pixel clocks, camera-control defaults) and
// the short table (4 rows: output size and format) are compiled in. The full
// table carries a device's sensor tuning and is read from a file at start-up
// (x5501_full_table, see Register_table_file.h); which of the two follows
// the core table is chosen by the configuration word at offset 20 (42: the
// short table).
//
// Constant data; reentrant.
#ifndef VQX_X5501_TABLES_H
#define VQX_X5501_TABLES_H

#include <cstddef>

#include "Register_burst.h"
#include "Register_table_file.h"

extern const Register_pair x5501_core_table[];
extern const size_t x5501_core_table_size;
extern const Register_pair x5501_short_table[];
extern const size_t x5501_short_table_size;

/// The full table's file: 0x001E first, 0xC954 last, 201 rows.
extern const Register_table_file x5501_full_table;

/// Configuration word (offset 20) that selects the short table.
constexpr unsigned x5501_short_table_select = 42;

#endif // VQX_X5501_TABLES_H
