// AR0144_tables: the AR0144 engine's power-up register tables, as data.
//
// Each table is a list of (register, value) entries written in order by
// AR0144_trait::power_up_init. An entry whose register is
// `ar0144_wait_entry` is a pause of `value` milliseconds. Consecutive
// registers (each two above the previous) are written as one burst.
//
// Table A and table B (engine variants 1 and 2) load the serial-interface
// engines; table C (any other variant) the parallel-interface engine. All
// three program the same PLL (74 MHz pixel clock from the 8 MHz reference),
// the same 1280 x 800 window (825 frame lines of 1492 pixel clocks, about
// 20 us a row and 60 frames a second) and leave the sensor ready but not
// streaming.
//
// Constant data; reentrant.
#ifndef VQX_AR0144_TABLES_H
#define VQX_AR0144_TABLES_H

#include <cstddef>
#include <cstdint>

struct AR0144_register_entry {
    uint32_t address;
    uint32_t value;
};

struct AR0144_register_table {
    const AR0144_register_entry* entries;
    size_t count;
};

/// Register number of a pause entry (its value is the pause in ms).
constexpr uint32_t ar0144_wait_entry = 0xFFFF;

extern const AR0144_register_table ar0144_table_a;
extern const AR0144_register_table ar0144_table_b;
extern const AR0144_register_table ar0144_table_c;

#endif // VQX_AR0144_TABLES_H
