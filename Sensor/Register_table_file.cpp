// Register_table_file: see Register_table_file.h.
#include "Register_table_file.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The default table directory relative to the directory the driver library
// is installed in (set by the build from its install directories).
#ifndef VQX_REGISTER_TABLE_RELATIVE_DIR
#define VQX_REGISTER_TABLE_RELATIVE_DIR "../share/VQXScanInterface/register-tables"
#endif

namespace {

// A hexadecimal number of at most @p bits bits with its 0x prefix at @p p;
// advances @p p.
bool parse_hex(const char*& p, unsigned bits, uint16_t& out)
{
    const unsigned long limit = (1ul << bits) - 1;
    while (*p == ' ' || *p == '\t')
        ++p;
    if (p[0] != '0' || (p[1] != 'x' && p[1] != 'X'))
        return false;
    p += 2;
    unsigned long v = 0;
    int digits = 0;
    for (;; ++p, ++digits) {
        const char c = *p;
        unsigned d;
        if (c >= '0' && c <= '9')
            d = unsigned(c - '0');
        else if (c >= 'a' && c <= 'f')
            d = unsigned(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            d = unsigned(c - 'A' + 10);
        else
            break;
        v = v * 16 + d;
        if (v > limit)
            return false;
    }
    if (digits == 0)
        return false;
    out = static_cast<uint16_t>(v);
    return true;
}

std::string hex(unsigned v, unsigned bits)
{
    char text[8];
    std::snprintf(text, sizeof text, bits == 8 ? "0x%02X" : "0x%04X", v & 0xFFFF);
    return text;
}

} // namespace

std::string Register_table_file::directory()
{
    const char* dir = std::getenv("VQX_REGISTER_TABLE_DIR");
    if (dir && *dir)
        return dir;
    // The object this function is in: the driver library (or a program the
    // driver is linked into).
    Dl_info info{};
    std::string library = dladdr(reinterpret_cast<void*>(&Register_table_file::directory), &info) && info.dli_fname
                              ? info.dli_fname
                              : "";
    const size_t slash = library.rfind('/');
    library = slash == std::string::npos ? "." : library.substr(0, slash == 0 ? 1 : slash);
    return library + "/" VQX_REGISTER_TABLE_RELATIVE_DIR;
}

std::string Register_table_file::path() const
{
    return directory() + "/" + file_name;
}

bool Register_table_file::load(std::vector<Register_pair>& rows, std::string& error) const
{
    return load_from(path(), rows, error);
}

bool Register_table_file::load_from(const std::string& file, std::vector<Register_pair>& rows,
                                    std::string& error) const
{
    rows.clear();
    const std::string where = std::string(what) + " \"" + file + "\"";
    FILE* f = std::fopen(file.c_str(), "r");
    if (!f) {
        error = where + ": cannot open (" + std::strerror(errno) + ")";
        return false;
    }
    char line[256];
    unsigned number = 0;     // line number
    unsigned last_row = 0;   // line of the last row
    bool ok = true;
    std::vector<uint16_t> selected;  // pages the rows select
    long line_start = std::ftell(f);
    while (ok && std::fgets(line, sizeof line, f)) {
        ++number;
        // A NUL byte would end the line's text early: the rest of the line
        // would go unread (and unchecked).
        const long line_end = std::ftell(f);
        if (line_end - line_start != long(std::strlen(line))) {
            error = where + ": line " + std::to_string(number) + " is not text (a NUL byte)";
            ok = false;
            break;
        }
        line_start = line_end;
        if (!std::strchr(line, '\n') && !std::feof(f)) {
            error = where + ": line " + std::to_string(number) + " is too long";
            ok = false;
            break;
        }
        if (char* hash = std::strchr(line, '#'))
            *hash = '\0';
        const char* p = line;
        while (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n')
            ++p;
        if (*p == '\0')
            continue;
        Register_pair row{};
        bool parsed = parse_hex(p, register_bits, row.address);
        if (parsed) {
            while (*p == ' ' || *p == '\t')
                ++p;
            if (*p == '=')
                ++p;
            parsed = parse_hex(p, value_bits, row.value);
        }
        while (parsed && (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n'))
            ++p;
        if (!parsed || *p != '\0' || (register_bits == 16 && row.address % 2 != 0)) {
            error = where + ": line " + std::to_string(number) + ": expected \"<register> <value>\" (" +
                    std::to_string(register_bits) + "-bit hexadecimal register" +
                    (register_bits == 16 ? ", even" : "") + ", " + std::to_string(value_bits) +
                    "-bit hexadecimal value, each with 0x)";
            ok = false;
            break;
        }
        if (rows.size() == row_count) {
            error = where + ": line " + std::to_string(number) + ": more than the table's " +
                    std::to_string(row_count) + " rows";
            ok = false;
            break;
        }
        if (page_register >= 0 && row.address == unsigned(page_register))
            selected.push_back(row.value);
        rows.push_back(row);
        last_row = number;
    }
    if (ok && std::ferror(f)) {
        error = where + ": read error";
        ok = false;
    }
    std::fclose(f);
    if (ok && rows.empty()) {
        error = where + ": no rows";
        ok = false;
    }
    // Whole-table faults name the line the table ends at.
    const std::string end = where + ": line " + std::to_string(last_row) + " (last row): ";
    if (ok && rows.size() != row_count) {
        error = end + "only " + std::to_string(rows.size()) + " rows, the table has " + std::to_string(row_count);
        ok = false;
    }
    if (ok && (rows.front().address != first_register || rows.back().address != last_register)) {
        error = end + "rows run from " + hex(rows.front().address, register_bits) + " to " +
                hex(rows.back().address, register_bits) + ", this table runs from " +
                hex(first_register, register_bits) + " to " + hex(last_register, register_bits);
        ok = false;
    }
    for (size_t i = 0; ok && i < pages.size(); ++i) {
        if (std::find(selected.begin(), selected.end(), pages[i]) == selected.end()) {
            error = end + "no row selects page " + hex(pages[i], value_bits) + " (register " +
                    hex(unsigned(page_register), register_bits) + "), whose registers the engine writes later";
            ok = false;
        }
    }
    if (!ok)
        rows.clear();
    return ok;
}
