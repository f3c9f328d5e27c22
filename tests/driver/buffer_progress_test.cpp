// Progress_tracker: markers on a 4 x 10 frame and the conservative row count.
#include "buffer_fixture.h"

#include <algorithm>
#include <cstring>

namespace {

const unsigned char marker[4] = {0xFF, 0x00, 0xFF, 0x00};

bool has_marker(const unsigned char* p) { return std::memcmp(p, marker, 4) == 0; }

} // namespace

class Progress_test : public Buffer_test {
protected:
    // Simulates the hardware writing image data over the 4 bytes at @p offset.
    void overwrite(size_t frame, size_t offset, unsigned char value = 0x10)
    {
        std::memset(hwl.frame(frame) + offset, value, 4);
    }
    size_t valid_rows(int expected_handle)
    {
        int handle = -1;
        size_t rows = 99;
        tracker.get_valid_rows(handle, rows);
        EXPECT_EQ(handle, expected_handle);
        return rows;
    }
};

TEST_F(Progress_test, ValidRowsOnFourByTenFrame)
{
    tracker.start_tracking(record(0));
    unsigned char* f = hwl.frame(0);
    for (size_t offset : {0, 16, 32, 36})
        EXPECT_TRUE(has_marker(f + offset)) << offset;
    EXPECT_EQ(std::count(f, f + 40, 0xFF), 8);  // nothing else written

    EXPECT_EQ(valid_rows(0), 0u);  // nothing written yet
    overwrite(0, 0);
    EXPECT_EQ(valid_rows(101), 0u);  // row 4 intact: 4 - 4
    overwrite(0, 16);
    EXPECT_EQ(valid_rows(101), 4u);  // row 8 intact
    overwrite(0, 32);
    EXPECT_EQ(valid_rows(101), 0u);  // only the end marker survives: kept as 0
    overwrite(0, 36);
    EXPECT_EQ(valid_rows(101), 10u);

    // Image data equal to the marker counts as unwritten.
    std::memcpy(f + 32, marker, 4);
    EXPECT_EQ(valid_rows(101), 4u);
    std::memcpy(f, marker, 4);
    EXPECT_EQ(valid_rows(0), 0u);
}

TEST_F(Progress_test, BuffersLeaveFromTheFrontOnly)
{
    EXPECT_EQ(valid_rows(0), 0u);  // nothing tracked
    tracker.start_tracking(record(0));
    tracker.start_tracking(record(0));  // twice in a row: refused
    tracker.start_tracking(record(1));
    tracker.start_tracking(record(2));  // a third: refused
    EXPECT_EQ(tracker.tracked(), 2u);
    EXPECT_FALSE(has_marker(hwl.frame(2)));
    tracker.stop_tracking(record(1));  // not the oldest: refused
    auto reports = Output_capture::take_assertions();
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_NE(reports[0].find("@ jni/../Progress_tracker line @120"), std::string::npos);
    EXPECT_NE(reports[1].find("line @112"), std::string::npos);
    EXPECT_NE(reports[2].find("line @36"), std::string::npos);

    overwrite(1, 0);
    overwrite(1, 16);
    EXPECT_EQ(valid_rows(0), 0u);  // buffer 0 is still the oldest
    tracker.stop_tracking(record(0));
    EXPECT_EQ(valid_rows(102), 4u);
    tracker.clear();
    EXPECT_EQ(tracker.tracked(), 0u);
    EXPECT_EQ(valid_rows(0), 0u);

    // A geometry too small for the markers: tracked, nothing planted.
    driver().capabilities.width = 3;
    std::memset(hwl.frame(0), 0x55, 40);
    tracker.start_tracking(record(0));
    EXPECT_EQ(std::count(hwl.frame(0), hwl.frame(0) + 40, 0x55), 40);
    EXPECT_EQ(valid_rows(0), 0u);
    EXPECT_EQ(tracker.tracked(), 1u);
}
