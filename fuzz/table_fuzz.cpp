// libFuzzer target: register table files. An input is the content of a
// table file; it is installed in the table directory as each table the
// driver reads from a file at start-up (the MT9M114 full table: 16-bit
// registers and values; the Hi704A initial table: 8-bit, paged) and loaded
// by the same call start-up makes. Every load is held against a reading of
// the format made here:
//   - a good file loads to exactly the rows of that reading, and those rows
//     written out again (both row forms) load to the same rows;
//   - a bad file is refused with no rows and a one-line reason naming the
//     table and the file, and the line of the first bad row (one that does
//     not parse, a row past the table's count, a line of 255 characters or
//     more or with a NUL byte), or for a fault of the whole table (row
//     count, first or last register, a page never selected) the line of
//     the last row; a file without rows names no line.
// Out-of-bounds reads and hangs are the sanitizers' and the fuzzer's.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Register_table_file.h"
#include "Rilo_trait.h"
#include "X5501_tables.h"

static bool operator==(const Register_pair& a, const Register_pair& b)
{
    return a.address == b.address && a.value == b.value;
}

namespace {

const Register_table_file* const kTables[] = {&x5501_full_table, &rilo_init_table};
constexpr int kGood = -1;

// "0x" and hexadecimal digits of at most @p bits bits at @p p.
bool number(const std::string& s, size_t& p, unsigned bits, uint16_t& out)
{
    if (s.compare(p, 2, "0x") != 0 && s.compare(p, 2, "0X") != 0)
        return false;
    const size_t first = p += 2;
    unsigned long v = 0;
    for (; p < s.size() && std::isxdigit(static_cast<unsigned char>(s[p])); ++p)
        if ((v = v * 16 + unsigned(s[p] <= '9' ? s[p] - '0' : (s[p] | 32) - 'a' + 10)) >= (1ul << bits))
            return false;
    out = static_cast<uint16_t>(v);
    return p > first;
}

size_t blanks(const std::string& s, size_t p, const char* set = " \t")
{
    while (p < s.size() && s[p] && std::strchr(set, s[p]))
        ++p;
    return p;
}

// The file's rows by the format: kGood, or the line a refusal names (0: none).
int read(const std::string& text, const Register_table_file& t, std::vector<Register_pair>& rows)
{
    int n = 1, last = 0;
    std::vector<uint16_t> selected;
    for (size_t at = 0, end; at < text.size(); at = end + 1, ++n) {
        end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        if (line.size() >= 255 || line.find('\0') != std::string::npos)
            return n;
        line = line.substr(0, line.find('#'));
        size_t p = blanks(line, 0, " \t\r");
        if (p == line.size())
            continue;
        Register_pair row{};
        bool ok = number(line, p, t.register_bits, row.address);
        const size_t gap = p;
        p = blanks(line, p);
        if (p < line.size() && line[p] == '=')
            p = blanks(line, p + 1);
        ok = ok && p > gap && number(line, p, t.value_bits, row.value);
        if (!ok || blanks(line, p, " \t\r") != line.size() || (t.register_bits == 16 && row.address % 2) ||
            rows.size() == t.row_count)
            return n;
        if (t.page_register >= 0 && row.address == unsigned(t.page_register))
            selected.push_back(row.value);
        rows.push_back(row);
        last = n;
    }
    if (rows.size() != t.row_count || rows.front().address != t.first_register ||
        rows.back().address != t.last_register)
        return last;
    for (uint16_t page : t.pages)
        if (std::find(selected.begin(), selected.end(), page) == selected.end())
            return last;
    return kGood;
}

[[noreturn]] void wrong(const Register_table_file& t, const std::string& what)
{
    std::fprintf(stderr, "table_fuzz: %s: %s\n", t.what, what.c_str());
    std::abort();
}

// Installs @p text as @p t's file and loads it as start-up does.
bool install_and_load(const Register_table_file& t, const std::string& text, std::vector<Register_pair>& rows,
                      std::string& error)
{
    FILE* f = std::fopen(t.path().c_str(), "wb");
    if (!f || std::fwrite(text.data(), 1, text.size(), f) != text.size() || std::fclose(f) != 0)
        wrong(t, "cannot write " + t.path());
    return t.load(rows, error);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    static char dir[] = "/tmp/vqx_table_fuzz.XXXXXX";
    if (!mkdtemp(dir))
        return 1;
    setenv("VQX_REGISTER_TABLE_DIR", dir, 1);
    std::atexit([] {
        for (const Register_table_file* t : kTables)
            std::remove(t->path().c_str());
        rmdir(dir);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (const Register_table_file* table : kTables) {
        const Register_table_file& t = *table;
        std::vector<Register_pair> want, rows, again;
        const int line = read(text, t, want);
        std::string error, out;
        const bool loaded = install_and_load(t, text, rows, error);
        if (loaded != (line == kGood))
            wrong(t, loaded ? "a bad file loaded (line " + std::to_string(line) + ")"
                            : "a good file refused: " + error);
        // The line named: "line N" followed by ':' or ' ' (no line: no "line ").
        const std::string named = "line " + std::to_string(line);
        const size_t at = error.find(line ? named : "line ");
        const bool names_line = line ? at != std::string::npos && std::strchr(": ", error[at + named.size()]) &&
                                           error[at + named.size()]
                                     : at == std::string::npos;
        if (!loaded && (!rows.empty() || error.find('\n') != std::string::npos || !names_line ||
                        error.rfind(std::string(t.what) + " \"" + t.path() + "\": ", 0) != 0))
            wrong(t, "refused with rows or a reason not naming " + (line ? named : "no line") + ": " + error);
        if (!loaded)
            continue;
        if (rows != want)
            wrong(t, "the rows loaded are not the file's rows");
        // Written out again, one row form or the other, it loads the same.
        char row[32];
        for (size_t i = 0; i < rows.size(); ++i) {
            std::snprintf(row, sizeof row, i % 2 ? "0x%X 0x%X\n" : "0x%04x=0x%02x\n", rows[i].address, rows[i].value);
            out += row;
        }
        if (!install_and_load(t, out, again, error) || again != rows)
            wrong(t, "the rows written out do not load back: " + error);
    }
    return 0;
}
