// Register_table_file: register tables that are device data, not code.
//
// Some engines' register tables carry the tuning of one device (lens
// shading, colour, analog trims). They are not compiled in: each is a text
// file that the device's image installs, read once at driver start-up by
// this one loader for every engine that needs one.
//
// Where: the directory named by the environment variable
// VQX_REGISTER_TABLE_DIR when it is set and not empty, else the directory
// compiled in as VQX_REGISTER_TABLE_DEFAULT_DIR (the installed
// share/VQXScanInterface/register-tables). The engine names the file.
//
// Format: one row per line, "<register> <value>" or "<register>=<value>",
// both hexadecimal with a 0x prefix, of the table's widths (16-bit
// registers at even addresses and 16-bit values, or 8-bit registers and
// values); "#" starts a comment; blank lines are ignored. Rows are written
// in file order.
//
// Checks: the file must open, every row must parse, the row count must lie
// in the engine's bounds, and the first and last registers must be the ones
// the engine's table is known to start and end with (a file of another
// table is refused). Any failure gives a one-line reason naming the file
// and, for a bad row, its line number; the engine then refuses to start.
//
// Start-up only (allocates); reentrant.
#ifndef VQX_REGISTER_TABLE_FILE_H
#define VQX_REGISTER_TABLE_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Register_burst.h"

struct Register_table_file {
    const char* file_name;   ///< file name inside the table directory
    const char* what;        ///< the table, for messages
    uint16_t first_register; ///< register of the first row
    uint16_t last_register;  ///< register of the last row
    size_t max_rows;         ///< most rows the table can have
    unsigned register_bits = 16;  ///< 16 (even registers) or 8
    unsigned value_bits = 16;     ///< 16 or 8

    /// The directory tables are read from (see the file comment).
    static std::string directory();
    /// Full path of this table's file.
    std::string path() const;
    /// Reads and checks the table into @p rows. False with a reason in
    /// @p error (rows left empty).
    bool load(std::vector<Register_pair>& rows, std::string& error) const;
    /// The same from an explicit @p path.
    bool load_from(const std::string& path, std::vector<Register_pair>& rows, std::string& error) const;
};

#endif // VQX_REGISTER_TABLE_FILE_H
