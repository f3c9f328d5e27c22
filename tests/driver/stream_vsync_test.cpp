// Frame events the stream driver must tolerate: while stopped, without a
// buffer, with a handle it does not know, out of order, partly written.
#include "stream_fixture.h"

#include <cstring>

TEST_F(Stream_test, VsyncWhileStoppedOrWithoutBuffer)
{
    make_stream(0);
    hwl.log.clear();
    vsync(102);  // stopped: the buffer goes straight back
    EXPECT_EQ("vsync(102) ReleaseBuffer(102)", calls());
    EXPECT_EQ(IStream_driver::STOPPED, state());

    start(0);
    calls();
    vsync(0);
    EXPECT_EQ("vsync(0)", calls());
    EXPECT_EQ(nullptr, available_now());

    stop_and_drain();
    start(7);  // modes 6 and 7 still arm the next capture and trigger once
    calls();
    vsync(0);
    EXPECT_EQ("vsync(0) init_capture(102) trigger_once", calls());
    EXPECT_EQ(nullptr, available_now());
    EXPECT_EQ(0u, Output_capture::count("Assertion"));
}

TEST_F(Stream_test, VsyncWithAnUnknownHandleIsReportedAndReturned)
{
    start(0);
    calls();
    vsync(999);
    EXPECT_EQ("vsync(999) ReleaseBuffer(999)", calls());
    EXPECT_EQ(1u, Output_capture::count("Assertion: p_info @ jni/../Stream_driver"));
    EXPECT_EQ(record(0), vstream().get_lock()->filling());
    EXPECT_EQ(1u, vstream().get_lock()->get_pending_captures());

    // A frame whose last rows were never written is delivered all the same.
    memset(hwl.frame(0), 0x33, width * 5);
    vsync(101);
    EXPECT_EQ(record(0), available_now());
    EXPECT_EQ(1u, Output_capture::count("Assertion"));
}

// A frame out of arming order is reported; the buffer that was being filled
// goes back to the hardware layer instead of staying locked.
TEST_F(Stream_test, VsyncOutOfOrderReleasesTheBufferBeingFilled)
{
    start(0);
    vsync(102);
    EXPECT_EQ(1u, Output_capture::count("pFilling->pointers.handle == buffer"));
    EXPECT_EQ(record(1), available_now());
    EXPECT_EQ(0u, record(0)->lock_cnt);
    EXPECT_EQ(1u, hwl.log.count("ReleaseBuffer(101)"));
    EXPECT_EQ(nullptr, vstream().get_lock()->filling());
}
