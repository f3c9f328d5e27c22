// Hex dump layout, dbg_output scratch text and assertion reports.
#include "Death_test_style.h"
#include "Output_capture.h"

#include <gtest/gtest.h>

#include <numeric>

namespace {

struct Collecting_lineout : Lineout {
    std::vector<std::string> lines;
    void line(const char* text) override { lines.emplace_back(text); }
};

std::vector<std::string> dump_lines(std::vector<unsigned char> bytes)
{
    Collecting_lineout sink;
    hex_dump(sink, bytes.data(), bytes.size());
    return sink.lines;
}

} // namespace

TEST(HexDump, LineLayoutIsByteExact)
{
    EXPECT_TRUE(dump_lines({}).empty());
    EXPECT_EQ(std::vector<std::string>{"0000: 41" + std::string(48, ' ') + " - A"}, dump_lines({0x41}));

    std::vector<unsigned char> bytes(0x23);
    std::iota(bytes.begin(), bytes.end(), 0x41);
    bytes[0x10] = 0x7E;
    bytes[0x20] = 0x00, bytes[0x21] = 0x61, bytes[0x22] = 0x0A;
    const auto lines = dump_lines(bytes);
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("0000: 41 42 43 44  45 46 47 48  49 4A 4B 4C  4D 4E 4F 50 - ABCDEFGH IJKLMNOP", lines[0]);
    EXPECT_EQ("0010: 7E 52 53 54  55 56 57 58  59 5A 5B 5C  5D 5E 5F 60 - ~RSTUVWX YZ[\\]^_`", lines[1]);
    EXPECT_EQ("0020: 00 61 0A" + std::string(42, ' ') + " - .a.", lines[2]);
    bytes.resize(17);
    EXPECT_EQ("0010: 7E" + std::string(48, ' ') + " - ~", dump_lines(bytes).at(1));

    EXPECT_EQ("0000: 1F 7F 80 20  7E 2E FF 41  42" + std::string(22, ' ') + " - ... ~..A B",
              dump_lines({0x1F, 0x7F, 0x80, 0x20, 0x7E, 0x2E, 0xFF, 0x41, 0x42})[0]);
}

TEST(Diagnostics, OutputAssertionsAndDumpSinks)
{
    Output_capture out;
    const std::string long_text(300, 'x');
    testing::internal::CaptureStderr();
    dbg_output("%s\r\n", long_text.c_str());
    // The scratch text is cut at 256 characters; the log line is not.
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find(long_text));
    EXPECT_EQ(std::vector<std::string>{std::string(256, 'x')}, out.messages());

    sd_assert_function("status == 0", "jni/../../lib_os/linux/Synchronization", 94);
    int reached = 0;
    SD_ASSERT(reached == 0, "reached == 0", "unit", 11);
    SD_ASSERT(reached == 1, "reached == 1", "unit", 12);
    reached = 1;
    silent_trace("engine_type is %s", "none");
    unsigned char bytes[17] = {0x30};
    hex_dump_msc(bytes, sizeof(bytes));
    hex_dump(bytes, 1);
    EXPECT_EQ(1, reached);
    EXPECT_EQ((std::vector<std::string>{
                  std::string(256, 'x'),
                  "Assertion: status == 0 @ jni/../../lib_os/linux/Synchronization line @94\r\n",
                  "Assertion: reached == 1 @ unit line @12\r\n",
                  "0000: 30" + std::string(48, ' ') + " - 0\r\n"}),
              out.messages());
    set_death_test_style();
    EXPECT_DEATH(sd_fatal(), "");
}
