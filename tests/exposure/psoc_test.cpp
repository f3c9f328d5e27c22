// Psoc register cache and PSOC_Cachex against a fake PSoC bus.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Output_capture.h"
#include "Psoc.h"

namespace {

// A PSoC bus with 256 byte registers; counts transfers and can fail them.
class Fake_psoc : public IHwl_psoc {
public:
    unsigned char regs[256] = {};
    unsigned reads = 0, writes = 0;
    unsigned last_count = 0;
    bool fail_reads = false, fail_writes = false;

    bool IsPsocSupported() override { return true; }
    bool WriteIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count) override
    {
        ++writes;
        if (fail_writes)
            return false;
        std::memcpy(regs + address, data, count);
        return true;
    }
    bool ReadIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count) override
    {
        ++reads;
        last_count = count;
        if (fail_reads)
            return false;
        std::memcpy(data, regs + address, count);
        return true;
    }
};

TEST(Psoc, CacheTrustsOnlyWhatItReadOrWrote)
{
    Fake_psoc bus;
    for (unsigned i = 0; i < 80; ++i)
        bus.regs[i] = static_cast<unsigned char>(i + 1);
    Psoc psoc(&bus);
    ASSERT_TRUE(psoc.init());
    EXPECT_EQ(bus.last_count, 80u);
    unsigned char v = 0;
    EXPECT_TRUE(psoc.read(0x32, &v));  // valid after init: no transfer
    EXPECT_EQ(v, 0x33);
    EXPECT_EQ(bus.reads, 1u);
    EXPECT_TRUE(psoc.read(0x10, &v));  // the other registers are read once
    EXPECT_TRUE(psoc.read(0x10, &v));
    EXPECT_EQ(v, 0x11);
    EXPECT_EQ(bus.reads, 2u);
    psoc.invalidate();  // forgets 0x32 only
    EXPECT_TRUE(psoc.read(0x10, &v));
    EXPECT_TRUE(psoc.read(0x32, &v));
    EXPECT_EQ(bus.reads, 3u);

    EXPECT_TRUE(psoc.write(0x20, 7));
    EXPECT_TRUE(psoc.write(0x20, 7));  // cached and valid: no transfer
    EXPECT_EQ(bus.writes, 1u);
    bus.fail_writes = true;
    EXPECT_FALSE(psoc.write(0x20, 8));
    bus.fail_writes = false;
    bus.regs[0x20] = 0;
    EXPECT_TRUE(psoc.write(0x20, 7));  // the failure forgot the cached 7
    EXPECT_EQ(bus.regs[0x20], 7);

    bus.fail_reads = true;
    v = 0xAA;
    EXPECT_FALSE(psoc.read(0x21, &v));
    EXPECT_EQ(v, 0xAA);
    Psoc broken(&bus);
    EXPECT_FALSE(broken.init());
    EXPECT_FALSE(broken.read(0x32, &v));
    bus.fail_reads = false;

    // Registers beyond the cache go to the bus every time.
    bus.regs[0x82] = 0x5A;
    const unsigned reads = bus.reads, writes = bus.writes;
    EXPECT_TRUE(psoc.read(0x82, &v));
    EXPECT_TRUE(psoc.read(0x82, &v));
    EXPECT_EQ(v, 0x5A);
    EXPECT_TRUE(psoc.write(0x82, 0));
    EXPECT_TRUE(psoc.write(0x82, 0));
    EXPECT_EQ(bus.reads - reads, 2u);
    EXPECT_EQ(bus.writes - writes, 2u);
}

TEST(Psoc, LightsModeAndBoostKeepTheOtherBits)
{
    const unsigned char codes[10] = {0, 1, 2, 3, 3, 3, 0, 2, 1, 0};
    for (uint32_t m = 0; m < 10; ++m)
        EXPECT_EQ(Psoc::get_lights_mode(m), codes[m]) << "mode " << m;
    EXPECT_EQ(Psoc::get_lights_mode(_tagVQX_SCANNER_LIGHTING::LightsMode(7)), 2);
    EXPECT_EQ(Psoc::get_lights_mode(0xFFFFFFFFu), 0);

    Output_capture output;
    Fake_psoc bus;
    bus.regs[0x32] = 0xE0 | (2 << 2) | 1;  // boost 2, lights 1
    Psoc psoc(&bus);
    ASSERT_TRUE(psoc.init());
    EXPECT_TRUE(psoc.set_lights_mode(Psoc::get_lights_mode(6u)));  // code 0
    EXPECT_EQ(bus.regs[0x32], 0xE0 | (2 << 2));
    EXPECT_TRUE(psoc.set_lights_mode(6));  // only bits 0-1 count
    EXPECT_EQ(bus.regs[0x32], 0xE0 | (2 << 2) | 2);

    EXPECT_TRUE(psoc.set_boost(1, false));  // lowering needs no request
    EXPECT_EQ(bus.regs[0x32], 0xE0 | (1 << 2) | 2);
    const unsigned writes = bus.writes;
    EXPECT_TRUE(psoc.set_boost(2, false));  // raising without request: nothing
    EXPECT_TRUE(psoc.set_boost(1, true));   // equal: nothing
    EXPECT_TRUE(psoc.set_lights_mode(2));   // unchanged: nothing
    EXPECT_EQ(bus.writes, writes);
    EXPECT_TRUE(output.messages().empty());
    EXPECT_TRUE(psoc.set_boost(3, true));  // reported, taken as 2
    EXPECT_EQ(bus.regs[0x32], 0xE0 | (2 << 2) | 2);
    EXPECT_EQ(output.take(), std::vector<std::string>{"Assertion: level <= 2 @ jni/../../lib/Psoc line @120\r\n"});

    bus.regs[0x32] = 0x10 | (2 << 2);  // bits 2-4 are replaced as a whole
    psoc.invalidate();
    EXPECT_TRUE(psoc.set_boost(0, false));
    EXPECT_EQ(bus.regs[0x32], 0x00);

    bus.fail_writes = true;
    EXPECT_FALSE(psoc.set_boost(2, true));
    EXPECT_FALSE(psoc.set_lights_mode(1));  // the failed write left 0x32 invalid ...
    bus.fail_reads = true;
    const unsigned tries = bus.writes;
    EXPECT_FALSE(psoc.set_boost(2, true));  // ... and a failed read writes nothing
    EXPECT_EQ(bus.writes, tries);
}

TEST(Psoc, IdentityFromTheRegisterImage)
{
    Fake_psoc bus;
    const unsigned char id[4] = {0x12, 0x34, 0x56, 0x78}, aim[4] = {0xFF, 0xFE, 0x00, 0x03};
    std::memcpy(bus.regs, id, 4);
    std::memcpy(bus.regs + 4, "SN01234567XYZ", 13);  // 10 characters belong to the serial
    std::memcpy(bus.regs + 0x1A, aim, 4);
    bus.regs[0x38] = 0x21;
    bus.regs[0x39] = 0x03;
    Psoc psoc(&bus);
    ASSERT_TRUE(psoc.init());
    const unsigned reads = bus.reads;

    EXPECT_EQ(psoc.get_engine_id(), 0x12345678u);
    EXPECT_EQ(psoc.get_revision(), 0x21u + (uint64_t(3) << 32));
    char serial[16];
    std::memset(serial, '#', sizeof serial);
    psoc.get_serial_no(serial, 5);
    EXPECT_EQ(std::string(serial, 6), std::string("SN01\0#", 6));
    psoc.get_serial_no(serial, sizeof serial);
    EXPECT_EQ(std::string(serial, 12), std::string("SN01234567\0#", 12));
    psoc.get_serial_no(serial, 0);
    EXPECT_EQ(serial[0], 'S');
    unsigned char offset[5] = {0, 0, 0, 0, 0xAA};
    psoc.get_engine_aimer_offset(offset);
    EXPECT_EQ(std::memcmp(offset, aim, 4), 0);
    EXPECT_EQ(offset[4], 0xAA);
    EXPECT_EQ(bus.reads, reads);  // no bus traffic
}

} // namespace
