// Register_table_file: register tables that are device data, not code.
//
// Some engines' register tables carry the tuning of one device (lens
// shading, colour, analog trims). They are not compiled in: each is a text
// file that the device's image installs, read once at driver start-up by
// this one loader for every engine that needs one.
//
// Where: the directory named by the environment variable
// VQX_REGISTER_TABLE_DIR when it is set and not empty, else
// share/VQXScanInterface/register-tables of the prefix the driver library
// is installed under, found at run time from the library's own location
// (<libdir>/../share/... in the usual layout; no absolute path is compiled
// in, so any prefix works). The driver installs no table there: a device's
// tables are the device's, and its image installs them. The engine names
// the file.
//
// Format: one row per line, "<register> <value>" or "<register>=<value>",
// both hexadecimal with a 0x prefix, of the table's widths (16-bit
// registers at even addresses and 16-bit values, or 8-bit registers and
// values); "#" starts a comment; blank lines are ignored. Rows are written
// in file order.
//
// Checks: the file must open, every row must parse, the table must have
// exactly the engine's row count (a shortened table would leave the sensor
// half configured), the first and last registers must be the ones the
// engine's table is known to start and end with (a file of another table is
// refused), and for a paged table the rows must select every page whose
// registers the trait writes later. Any failure gives a one-line reason
// naming the file and a line (the bad row's, or for the whole table its last
// line); the engine then refuses to start.
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
    size_t row_count;        ///< rows the table has, exactly
    unsigned register_bits = 16;  ///< 16 (even registers) or 8
    unsigned value_bits = 16;     ///< 16 or 8
    int page_register = -1;       ///< selects the page of the rows after it (-1: no pages)
    std::vector<uint16_t> pages{};  ///< pages the rows must select

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
