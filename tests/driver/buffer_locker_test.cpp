// Buffer ownership: lock counts, owners, release to the hardware layer; the
// size-limited copies of image attributes and trait capabilities; the base
// trait's start and stop.
#include "buffer_fixture.h"

#include <cstring>

using Owner = ScanBufferInfo;

TEST_F(Buffer_test, LoadCopiesPointersAndZeroesRecords)
{
    ASSERT_EQ(vlocker().num_buffers(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(record(i)->pointers.handle, static_cast<int>(101 + i));
        EXPECT_EQ(record(i)->pointers.capture, hwl.frame(i));
        EXPECT_EQ("0 NONE", held(record(i)));
        EXPECT_EQ(record(i)->suppress_buffer_free, 0u);
    }
    // find_buffer accepts the record, image or capture address; by handle too.
    hwl.buffers[2].capture = hwl.frame(2) + 8;
    vlocker().load_image_buffers();
    EXPECT_EQ(vlocker().find_buffer(record(2)), record(2));
    EXPECT_EQ(vlocker().find_buffer(hwl.frame(2)), record(2));
    EXPECT_EQ(vlocker().find_buffer(hwl.frame(2) + 8), record(2));
    EXPECT_EQ(vlocker().find_buffer(hwl.frame(2) + 1), nullptr);
    EXPECT_EQ(vlocker().find_buffer_by_handle(102), record(1));
    EXPECT_EQ(vlocker().find_buffer_by_handle(7), nullptr);
}

TEST_F(Buffer_test, OwnershipConflictsAndDoubleUnlock)
{
    // Scan driver holds buffer 0: the client can neither lock nor unlock it.
    ScanBufferInfo* sd = vlocker().allocate_buffer(Owner::SCANDRIVER);
    ASSERT_EQ(sd, record(0));
    EXPECT_FALSE(vlocker().LockBuffer(sd, Owner::CLIENT));
    EXPECT_FALSE(vlocker().UnlockBuffer(sd, Owner::CLIENT));
    EXPECT_EQ("1 SCANDRIVER", held(sd));
    EXPECT_TRUE(vlocker().LockBuffer(sd, Owner::SCANDRIVER));
    EXPECT_EQ("2 SCANDRIVER", held(sd));

    // Client holds buffer 1 (locked through its image address).
    EXPECT_TRUE(vlocker().LockBuffer(hwl.frame(1), Owner::CLIENT));
    EXPECT_FALSE(vlocker().LockBuffer(hwl.frame(1), Owner::SCANDRIVER));
    EXPECT_FALSE(vlocker().UnlockBuffer(hwl.frame(1), Owner::SCANDRIVER));
    EXPECT_EQ("1 CLIENT", held(record(1)));
    EXPECT_EQ(hwl.log.count_prefix("ReleaseBuffer"), 0u);

    EXPECT_TRUE(vlocker().UnlockBuffer(hwl.frame(1), Owner::CLIENT));
    EXPECT_FALSE(vlocker().UnlockBuffer(hwl.frame(1), Owner::CLIENT));  // double unlock
    EXPECT_EQ(hwl.log.count(released(1)), 1u);
    // The scan driver's two locks: only the second frees the buffer.
    EXPECT_TRUE(vlocker().UnlockBuffer(sd, Owner::SCANDRIVER));
    EXPECT_EQ(hwl.log.count(released(0)), 0u);
    EXPECT_TRUE(vlocker().UnlockBuffer(sd, Owner::SCANDRIVER));
    EXPECT_EQ(hwl.log.count(released(0)), 1u);
    EXPECT_EQ("0 NONE", held(sd));

    // Unknown addresses are refused.
    int elsewhere = 0;
    EXPECT_FALSE(vlocker().LockBuffer(&elsewhere, Owner::CLIENT));
    EXPECT_FALSE(vlocker().UnlockBuffer(&elsewhere, Owner::CLIENT));
    // None of this is an inconsistency worth an assertion.
    EXPECT_TRUE(Output_capture::take_assertions().empty());
}

TEST_F(Buffer_test, AllocateTakesLowestFreeAndStopsAtUnloadedEntry)
{
    EXPECT_EQ(vlocker().allocate_buffer(Owner::SCANDRIVER), record(0));
    EXPECT_EQ(vlocker().allocate_buffer(Owner::SCANDRIVER), record(1));
    EXPECT_EQ(vlocker().allocate_buffer(Owner::SCANDRIVER), record(2));
    EXPECT_EQ(vlocker().allocate_buffer(Owner::SCANDRIVER), nullptr);
    EXPECT_TRUE(vlocker().UnlockBuffer(record(1), Owner::SCANDRIVER));
    EXPECT_TRUE(vlocker().UnlockBuffer(record(2), Owner::SCANDRIVER));
    EXPECT_EQ(vlocker().allocate_buffer(Owner::SCANDRIVER), record(1));  // no rotation

    // An entry without capture address ends the search even if later ones
    // are free.
    hwl.buffers[1].capture = nullptr;
    vlocker().load_image_buffers();
    EXPECT_TRUE(vlocker().LockBuffer(record(0), Owner::CLIENT));
    EXPECT_EQ(vlocker().allocate_buffer(Owner::SCANDRIVER), nullptr);
    EXPECT_EQ(record(2)->lock_cnt, 0u);
}

TEST_F(Buffer_test, FinalUnlockReleasesAndSignalsBufferFree)
{
    ASSERT_TRUE(vlocker().LockBuffer(record(2), Owner::CLIENT));
    ASSERT_TRUE(vlocker().LockBuffer(record(2), Owner::CLIENT));
    EXPECT_TRUE(vlocker().UnlockBuffer(record(2), Owner::CLIENT));
    EXPECT_EQ(stream.buffer_free_calls, 0);
    EXPECT_TRUE(vlocker().UnlockBuffer(record(2), Owner::CLIENT));
    EXPECT_EQ(hwl.log.entries(), std::vector<std::string>{released(2)});
    EXPECT_EQ(stream.buffer_free_calls, 1);

    // Suppressed: released to the hardware layer, stream driver not told.
    record(0)->suppress_buffer_free = 1;
    ASSERT_TRUE(vlocker().LockBuffer(record(0), Owner::CLIENT));
    EXPECT_TRUE(vlocker().UnlockBuffer(record(0), Owner::CLIENT));
    EXPECT_EQ(hwl.log.count(released(0)), 1u);
    EXPECT_EQ(stream.buffer_free_calls, 1);

    // Without a stream driver the unlock still releases.
    driver().stream_driver = nullptr;
    ASSERT_TRUE(vlocker().LockBuffer(record(1), Owner::CLIENT));
    EXPECT_TRUE(vlocker().UnlockBuffer(record(1), Owner::CLIENT));
    EXPECT_EQ(hwl.log.count(released(1)), 1u);
}

TEST_F(Buffer_test, ResetKeepsScanDriverLocksAndCirculationCount)
{
    EXPECT_EQ(vlocker().circulating_buffers(), 3u);
    ScanBufferInfo* sd = vlocker().allocate_buffer(Owner::SCANDRIVER);
    ASSERT_TRUE(vlocker().LockBuffer(sd, Owner::SCANDRIVER));
    EXPECT_EQ(vlocker().circulating_buffers(), 3u);  // scan-driver buffers circulate
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(vlocker().LockBuffer(record(1), Owner::CLIENT));
    EXPECT_EQ(vlocker().circulating_buffers(), 2u);
    ASSERT_TRUE(vlocker().LockBuffer(record(2), Owner::CLIENT));
    EXPECT_EQ(vlocker().circulating_buffers(), 1u);

    vlocker().reset_buffer_locks();
    EXPECT_EQ("2 SCANDRIVER", held(sd));
    EXPECT_EQ("0 NONE", held(record(1)));
    EXPECT_EQ(hwl.log.entries(), (std::vector<std::string>{released(1), released(2)}));
    EXPECT_EQ(stream.buffer_free_calls, 1);  // a scan still running may resume
    EXPECT_EQ(vlocker().circulating_buffers(), 3u);

    // Every buffer with the client: nothing circulates.
    vlocker().UnlockBuffer(sd, Owner::SCANDRIVER);
    vlocker().UnlockBuffer(sd, Owner::SCANDRIVER);
    client_all(true);
    EXPECT_EQ(vlocker().circulating_buffers(), 0u);
    EXPECT_TRUE(Output_capture::take_assertions().empty());
}

TEST_F(Buffer_test, AttributesAndCapabilitiesCopiesAreSizeLimited)
{
    _tagImageAttributes& a = record(1)->attributes;
    a = _tagImageAttributes{40, 11, 12, 13, 255, height, width, 99, 0, 0, 1};

    struct { _tagImageAttributes attributes; unsigned char tail[60]; } big;
    std::memset(&big, 0xAB, sizeof big);
    big.attributes.size = 100;
    EXPECT_TRUE(locker.Get_image_attributes(hwl.frame(1), &big.attributes));
    EXPECT_EQ(std::memcmp(&big.attributes, &a, 40), 0);
    EXPECT_EQ(big.tail[0], 0xAB);

    _tagImageAttributes small;
    std::memset(&small, 0xCD, sizeof small);
    small.size = 16;
    EXPECT_TRUE(locker.Get_image_attributes(record(1), &small));
    EXPECT_EQ(small.size, 16u);
    EXPECT_EQ(small.white_value, 13u);
    EXPECT_EQ(small.max_value, 0xCDCDCDCDu);  // byte 16 onwards untouched

    int elsewhere = 0;
    EXPECT_FALSE(locker.Get_image_attributes(&elsewhere, &small));
    EXPECT_FALSE(locker.Get_image_attributes(hwl.frame(1), nullptr));

    // The trait's capabilities: the caller's record is cleared up to its size.
    struct { Sensor_trait::Capabilities caps; unsigned char tail[40]; } caps_big;
    std::memset(&caps_big, 0xEE, sizeof caps_big);
    caps_big.caps.size = 64;
    trait.get_capabilities(caps_big.caps);
    const Sensor_trait::Capabilities full{32, width, height, width, height, 1};
    EXPECT_EQ(0, std::memcmp(&full, &caps_big.caps, 28));
    for (size_t i = 0; i < 32; ++i)
        EXPECT_EQ(caps_big.tail[i], 0) << i;  // cleared up to the caller's 64 bytes
    EXPECT_EQ(caps_big.tail[32], 0xEE);

    Sensor_trait::Capabilities caps_small;
    std::memset(&caps_small, 0xEE, sizeof caps_small);
    caps_small.size = 16;
    trait.get_capabilities(caps_small);
    EXPECT_EQ(caps_small.size, 16u);
    EXPECT_EQ(caps_small.width, width);
    EXPECT_EQ(caps_small.height, height);
    EXPECT_EQ(caps_small.width2, 0xEEEEEEEEu);
}

// Sensor_trait base behaviours, seen through the fake engine trait.
TEST_F(Buffer_test, TraitStartAndStopScanning)
{
    hwl.start_scanning_result = false;
    EXPECT_FALSE(trait.start_scanning());
    EXPECT_EQ(hwl.log.entries(), std::vector<std::string>{"StartScanning"});  // not initialised

    hwl.start_scanning_result = true;
    trait.initialize_result = false;
    EXPECT_FALSE(trait.start_scanning());
    EXPECT_FALSE(trait.is_scanning_initialised());
    trait.initialize_result = true;
    EXPECT_TRUE(trait.start_scanning());
    EXPECT_TRUE(trait.is_scanning_initialised());

    // The hardware layer's StopScanning answer is inverted on purpose.
    hwl.log.clear();
    EXPECT_FALSE(trait.stop_scanning());  // StopScanning returned true
    EXPECT_EQ(hwl.log.entries(), (std::vector<std::string>{"deinitialize_scanning", "StopScanning"}));
    EXPECT_FALSE(trait.is_scanning_initialised());
    hwl.stop_scanning_result = false;
    EXPECT_TRUE(trait.stop_scanning());
    trait.deinitialize_result = false;
    EXPECT_FALSE(trait.stop_scanning());
}
