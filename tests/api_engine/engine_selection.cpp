// Driver start-up and engine selection, seen from the C interface. The
// driver starts once per process, so the whole story runs in order in one
// test: failed start-ups (no hardware layer, unknown engine types, a
// register table file missing or malformed) build nothing and leave the
// next open to try again; the first engine that starts keeps the driver.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <VQXScanInterface.h>

#include "IHwl.h"
#include "Sim_client.h"

namespace {

// A hardware layer that reports a chosen engine type and counts every other
// call made on it (start-up must make none for an engine it cannot drive).
class Typed_hwl : public IHwl {
public:
    explicit Typed_hwl(std::string type) : type(std::move(type)) {}
    const char* EngineType() override { ++type_reads; return type.c_str(); }

    Image_buffer_pointers* GetImageBuffers(uint64_t& count) override { ++other_calls; count = 0; return nullptr; }
    bool RegisterVsyncNotification(Vsync_callback, void*) override { return other(); }
    unsigned int GetScanHeight() override { other(); return 0; }
    unsigned int GetScanWidth() override { other(); return 0; }
    bool ImagerPowerUp() override { return other(); }
    bool ImagerPowerDown() override { return other(); }
    bool ImagerPowerOn() override { return other(); }
    bool ImagerPowerOff() override { return other(); }
    bool ResetTransferHardware() override { return other(); }
    bool AimOn() override { return other(); }
    bool AimOff() override { return other(); }
    bool IllumConfig(unsigned int) override { return other(); }
    bool IllumOn() override { return other(); }
    bool IllumOff() override { return other(); }
    bool WriteReg(unsigned int, uint16_t*, uint64_t) override { return other(); }
    bool ReadReg(unsigned int, uint16_t*, uint64_t) override { return other(); }
    void GetConfig(Config*) override { other(); }
    bool OpenSession() override { return other(); }

    int type_reads = 0;
    int other_calls = 0;

private:
    bool other() { ++other_calls; return false; }
    std::string type;
};

// Opens with @p hwl installed; expects failure, one engine type read, no
// other call, and a log line naming the type.
void expect_rejected(const std::string& type)
{
    SCOPED_TRACE("engine type \"" + type + "\"");
    Typed_hwl hwl(type);
    vqxsim::set_instance_for_InitHWLayer(&hwl);
    testing::internal::CaptureStderr();
    VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
    const std::string log = testing::internal::GetCapturedStderr();
    vqxsim::set_instance_for_InitHWLayer(nullptr);
    EXPECT_EQ(nullptr, h);
    EXPECT_EQ(1, hwl.type_reads);
    EXPECT_EQ(0, hwl.other_calls);
    EXPECT_NE(std::string::npos, log.find("engine type \"" + type + "\"")) << log;
}

TEST(EngineSelection, FailedStartUpsAreRetriedUntilASupportedEngineStartsTheDriver)
{
    // No hardware layer: the simulator refuses an engine it has no model of.
    setenv("VQXSIM_ENGINE", "NO-SUCH-ENGINE", 1);
    EXPECT_EQ(nullptr, VQXSI_OpenSessionWithScanEngine());
    EXPECT_EQ(nullptr, VQXSI_OpenSessionWithScanEngine());

    // Texts that match no row (the match is exact and case-sensitive).
    for (const char* type : {"kelp", "x7710", "X7710 ", "X771", "X5502", ""})
        expect_rejected(type);

    // An X5501 engine configured for its full register table, with the
    // table's file missing or not a register table: refused, the reason
    // names the file, nothing was powered.
    for (const char* content : {static_cast<const char*>(nullptr), "0x001E 0x0777\nnot a row\n"}) {
        const std::string dir = testing::TempDir() + "vqx_tables_" + std::to_string(getpid());
        mkdir(dir.c_str(), 0700);
        const std::string file = dir + "/mt9m114_full.regs";
        std::remove(file.c_str());
        if (content) {
            FILE* f = std::fopen(file.c_str(), "w");
            ASSERT_NE(nullptr, f);
            std::fputs(content, f);
            std::fclose(f);
        }
        setenv("VQX_REGISTER_TABLE_DIR", dir.c_str(), 1);
        vqxsim::Config x5501;
        x5501.engine = "X5501";
        x5501.register_table = 0;
        auto refused = vqxsim::Simulator::create(x5501);
        ASSERT_NE(nullptr, refused);
        vqxsim::set_instance_for_InitHWLayer(refused->hwl());
        testing::internal::CaptureStderr();
        EXPECT_EQ(nullptr, VQXSI_OpenSessionWithScanEngine());
        const std::string log = testing::internal::GetCapturedStderr();
        vqxsim::set_instance_for_InitHWLayer(nullptr);
        EXPECT_NE(std::string::npos, log.find(file)) << log;
        EXPECT_NE(std::string::npos, log.find(content ? "line 2" : "cannot open")) << log;
        EXPECT_EQ(0u, refused->calls("ImagerPowerOn"));
        refused->shutdown();
        std::remove(file.c_str());
        rmdir(dir.c_str());
        unsetenv("VQX_REGISTER_TABLE_DIR");
    }

    // The AR0144 engine starts the driver.
    vqxsim::Config config;
    config.fps = 120.0;
    config.render = vqxsim::Render_mode::fast;
    vqxsim::Simulator* sim = sim_client::kept_simulator(config);  // the driver keeps it until exit
    VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
    ASSERT_NE(nullptr, h);
    ASSERT_EQ(1, VQXSI_StartScanning(h));
    void* frame = VQXSI_GetNewScan(h);
    ASSERT_NE(nullptr, frame);
    EXPECT_EQ(1, VQXSI_UnlockBuffer(h, frame));
    EXPECT_EQ(1, VQXSI_StopScanning(h));
    VQXSI_CloseSessionWithScanEngine(h);

    // Once up, the driver never asks for a hardware layer again.
    Typed_hwl other("KELP");
    vqxsim::set_instance_for_InitHWLayer(&other);
    h = VQXSI_OpenSessionWithScanEngine();
    EXPECT_NE(nullptr, h);
    EXPECT_EQ(0, other.type_reads);
    VQXSI_CloseSessionWithScanEngine(h);
    vqxsim::set_instance_for_InitHWLayer(sim->hwl());
    EXPECT_EQ(0u, sim->buffers_in(vqxsim::Buffer_state::delivered));
    sim->shutdown();
}

} // namespace
