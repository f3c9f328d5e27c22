// X5501_trait on the simulated MT9M114: what the end-to-end harness cannot
// reach. Gain and exposure as the sensor applies them, the host-command
// protocol with its error codes, standby entered and left (0x28 the first
// time after a power-up, 0x54 after that), the configuration-word checks,
// and the register table loader.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "Hwl_logging.h"
#include "Output_capture.h"
#include "Register_table_file.h"
#include "Rilo_trait.h"
#include "Simulator.h"
#include "X5501_Exposure_controller.h"
#include "X5501_tables.h"
#include "X5501_trait.h"
#include "monitor.h"

namespace {

constexpr uint8_t kStreaming = 0x31, kStandby = 0x52;

struct X5501_on_sim {
    explicit X5501_on_sim(const std::string& faults = "", unsigned command_ms = 2, bool psoc = true)
    {
        vqxsim::Config config;
        config.engine = "X5501";
        config.psoc_fitted = psoc;
        config.real_time = false;
        config.command_ms = command_ms;
        config.boot_ms = 5;
        std::string error;
        EXPECT_TRUE(config.faults.parse(faults, &error)) << error;
        sim = vqxsim::Simulator::create(config, &error);
        EXPECT_NE(nullptr, sim) << error;
        hwl = std::make_unique<Hwl_logging_x5501>(static_cast<IHwl_x5501*>(sim->hwl()));
        trait = std::make_unique<X5501_trait>(*hwl, Trait_context{&controller, &driver_config, &monitor});
        controller.bind(trait.get());
    }
    ~X5501_on_sim() { sim->shutdown(); }
    /// Current system state once the firmware finished its command.
    uint8_t settled_state()
    {
        EXPECT_EQ(0, trait->WaitForCompletion(0x8002, 200));
        return static_cast<uint8_t>(sim->reg(0xDC00) & 0xFF);
    }

    /// The gain (1/512) the sensor applies: a 6-bit mantissa of gain / 8 and
    /// a 2-bit shift in its gain register.
    double applied_gain() const
    {
        const uint16_t code = sim->reg(0x305E);
        return double(unsigned(code & 63) << ((code >> 6) & 3)) / 64.0 * 512.0;
    }

    // The driver's configuration record as start-up fills it by default: one
    // data lane, the short register table.
    IHwl::Config driver_config{sizeof(IHwl::Config), 3, 0, 1, 42};
    Monitor_base monitor;
    std::unique_ptr<vqxsim::Simulator> sim;
    std::unique_ptr<Hwl_logging_x5501> hwl;
    X5501_Exposure_controller<X5501_trait> controller;
    std::unique_ptr<X5501_trait> trait;
};

TEST(X5501Trait, GainAndRowsAreWhatTheSensorApplies)
{
    // rows, gain (1/512) -> frame length the sensor must hold, and the
    // analog gain it applies (within the 6-bit mantissa of gain / 8).
    struct Row { unsigned rows, gain, frame_length; };
    const Row rows[] = {
        {100, 512, 925},    // unity gain, minimum frame length
        {1000, 4032, 1002}, // top gain, frame stretched by the rows
        {56, 8, 925},       // bottom gain
        {923, 700, 925},    // frame length just reached
        {1835, 1025, 1837}, // a gain between two mantissa steps
    };
    X5501_on_sim x;
    for (const Row& r : rows) {
        SCOPED_TRACE("rows " + std::to_string(r.rows) + " gain " + std::to_string(r.gain));
        ASSERT_TRUE(x.trait->set_exposure_gain(r.rows, r.gain, false));
        EXPECT_EQ(r.rows, x.sim->reg(0x3012));
        EXPECT_EQ(r.frame_length, x.sim->reg(0x300A));
        const uint16_t code = x.sim->reg(0x305E);
        const double applied = x.applied_gain();
        EXPECT_LE(applied, r.gain);
        EXPECT_GT(applied, r.gain - std::max(r.gain / 32.0, 8.0));
        // Round trip: the register's own gain encodes to the same register.
        EXPECT_EQ(code, X5501_trait::gain_register_of(X5501_trait::effective_gain(code) * 8));
    }
}

TEST(X5501Trait, AutoExposureScalesTheContrastByTheWhiteValue)
{
    // A frame at the target keeps exposure x gain, a saturated one quarters
    // it, a black one quadruples it, half the target doubles it; below the
    // shortest exposure time the gain goes down instead. What the sensor
    // then holds (rows x applied gain) is the new contrast.
    struct Row { unsigned white, contrast; double factor; };
    const Row rows[] = {
        {120, 400 * 512, 1.0}, {255, 400 * 512, 0.25}, {0, 400 * 512, 4.0}, {60, 400 * 512, 2.0}, {255, 60 * 512, 0.25},
    };
    X5501_on_sim x;
    const auto sensor_contrast = [&x] { return x.sim->reg(0x3012) * x.applied_gain(); };
    ASSERT_EQ(120u, x.controller.settings.target_value);
    for (const Row& r : rows) {
        SCOPED_TRACE("white " + std::to_string(r.white) + " contrast " + std::to_string(r.contrast));
        unsigned contrast = 0;
        ASSERT_TRUE(x.trait->update_contrast(r.white, r.contrast, contrast));
        EXPECT_NEAR(r.contrast * r.factor, contrast, r.contrast * r.factor / 20);
        EXPECT_NEAR(contrast, sensor_contrast(), contrast / 16.0);
    }
    // Fixed exposure: the fixed values are programmed whatever the frame.
    x.controller.settings.mode = 0;
    unsigned fixed = 0;
    ASSERT_TRUE(x.trait->update_contrast(255, 400 * 512, fixed));
    EXPECT_NEAR(fixed, sensor_contrast(), fixed / 16.0);
}

TEST(X5501Trait, StandbyIsLeftThrough0x28FirstThen0x54AndStopsFrames)
{
    X5501_on_sim x;
    ASSERT_TRUE(x.trait->power_up_init());
    EXPECT_EQ(kStandby, x.settled_state());
    EXPECT_FALSE(x.sim->streaming());

    const uint8_t expected_requests[] = {0x28, 0x54, 0x54};
    for (uint8_t request : expected_requests) {
        SCOPED_TRACE("leave request " + std::to_string(request));
        x.trait->trigger_on();
        EXPECT_EQ(request, x.sim->reg(0xDC00) >> 8) << "requested state";
        EXPECT_EQ(kStreaming, x.settled_state());
        EXPECT_TRUE(x.sim->streaming());
        x.trait->trigger_off();
        EXPECT_EQ(kStandby, x.settled_state());
        EXPECT_FALSE(x.sim->streaming());
    }
    // A power-up starts over with 0x28.
    x.trait->sleep();
    ASSERT_TRUE(x.trait->power_up_init());
    EXPECT_EQ(kStandby, x.settled_state());
    x.trait->trigger_on();
    EXPECT_EQ(0x28, x.sim->reg(0xDC00) >> 8);
}

TEST(X5501Trait, HostCommandErrorsAreReportedWithTheirCodes)
{
    struct Row { const char* faults; unsigned command_ms; int code; };
    const Row rows[] = {
        {"", 2, X5501_trait::COMMAND_OK},
        {"command_error", 2, X5501_trait::COMMAND_INVALID},
        {"command_hang", 2, X5501_trait::COMMAND_TIMED_OUT},
        {"", 500, X5501_trait::COMMAND_TIMED_OUT},  // slower than the wait
        {"regfail_read", 2, X5501_trait::COMMAND_IO_ERROR},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string("faults \"") + r.faults + "\", command " + std::to_string(r.command_ms) + " ms");
        X5501_on_sim x(r.faults, r.command_ms);
        Output_capture out;
        ASSERT_TRUE(x.trait->write_variable(0xDC00, 0x50));
        uint16_t command = 0x8002;
        ASSERT_TRUE(x.hwl->WriteReg(0x0080, &command, 2));
        EXPECT_EQ(r.code, x.trait->WaitForCompletion(0x8002, 100));
        const std::string report = "ERROR: Command failed, err " + std::to_string(r.code);
        EXPECT_EQ(r.code == 0 ? 0u : 1u, Output_capture::count(report));
    }
    // A leave request in the wrong state: the firmware refuses it.
    X5501_on_sim x;
    ASSERT_TRUE(x.trait->write_variable(0xDC00, 0x54));  // streaming, not in standby
    uint16_t command = 0x8002;
    ASSERT_TRUE(x.hwl->WriteReg(0x0080, &command, 2));
    EXPECT_EQ(X5501_trait::COMMAND_INVALID, x.trait->WaitForCompletion(0x8002, 100));
}

TEST(X5501Trait, PowerUpLoadsOnceAndReportsAFailedTable)
{
    {
        X5501_on_sim x;
        ASSERT_TRUE(x.trait->power_up_init());
        const uint64_t writes = x.sim->calls("WriteReg");
        EXPECT_TRUE(x.trait->power_up_init()) << "already initialised";
        EXPECT_EQ(writes, x.sim->calls("WriteReg"));
        // After sleep the sensor (in standby, not streaming) is reset and
        // loaded again.
        EXPECT_EQ(kStandby, x.settled_state());
        x.trait->sleep();
        ASSERT_TRUE(x.trait->power_up_init());
        EXPECT_EQ(kStandby, x.settled_state());
        EXPECT_GT(x.sim->calls("WriteReg"), 2 * writes) << "reset and tables again";
    }
    X5501_on_sim x("regfail_write=always");
    Output_capture out;
    EXPECT_FALSE(x.trait->power_up_init());
    EXPECT_EQ(1u, Output_capture::count("Fails to write Reg:301A, n = 1!!!"));
}

TEST(X5501Trait, PowerUpChecksTheImagerLink)
{
    struct Row { uint32_t link; bool ok; const char* report; };
    const Row rows[] = {
        {1, true, nullptr},
        {0, false, "Parallel interface is not supported!"},
        {2, false, "Only 1 data lane is supported."},
    };
    for (const Row& r : rows) {
        X5501_on_sim x;
        x.driver_config.imager_link = r.link;
        Output_capture out;
        EXPECT_EQ(r.ok, x.trait->power_up_init()) << "link " << r.link;
        if (r.report) {
            EXPECT_EQ(1u, Output_capture::count(r.report));
        }
    }
}

// The table loader, on files written here (a 16-bit table of 3 rows and a
// paged 8-bit one of 4 that must select pages 0 and 0x20), and on the
// simulated engines' own tables.
TEST(RegisterTableFile, AcceptsTablesAndNamesWhatIsWrong)
{
    const Register_table_file tables[] = {{"t.regs", "test table", 0x001E, 0xC954, 3},
                                          {"p.regs", "paged table", 0x01, 0x01, 4, 8, 8, 3, {0, 0x20}}};
    struct Row { int table; const char* text; const char* reason; };
    const Row rows[] = {
        {0, "# comment\n\n  0x001E   0x0777  # trailing\r\n0x3180=0xa7ff\r\n0xC954 0x009A", nullptr},
        {0, "0x001E 0x0777\n0x3181 0x0000\n0xC954 0x009A\n", "line 2: expected"},   // odd register
        {0, "0x001E 0x0777\n0x3180 0x10000\n0xC954 0x009A\n", "line 2: expected"},  // 17-bit value
        {0, "0x001E 0x0777\n0x3180\n0xC954 0x009A\n", "line 2: expected"},          // no value
        {0, "0x001E 0x0777\n3180 0x0000\n0xC954 0x009A\n", "line 2: expected"},     // no 0x
        {0, "0x001E 0x0777\n0x3180 0x\n0xC954 0x009A\n", "line 2: expected"},     // no digits
        {0, "0x001E 0x0777 0x1\n", "line 1: expected"},                             // extra field
        {0, "# nothing\n", "no rows"},
        {0, "0x3180 0x87FF\n0x3182 0x0\n0xC954 0x009A\n", "line 3 (last row): rows run from 0x3180"},
        {0, "0x001E 0x0777\n0x3180 0x87FF\n0x3182 0x0\n", "line 3 (last row): rows run from 0x001E to 0x3182"},
        {0, "0x001E 0x0777\n\n0xC954 0x009A\n", "line 3 (last row): only 2 rows, the table has 3"},
        {0, "0x001E 0x1\n0x0002 0x1\n0x0004 0x1\n0xC954 0x1\n", "line 4: more than the table's 3 rows"},
        {0, "0x001E 0x1\n0x0002 0x1\n0xC954 0x1@ junk", "line 3 is not text"},  // '@': a NUL byte
        {1, "0x01 0xF1\n0x03 0x20\n0x03 0x00\n0x01 0xF1\n", nullptr},
        {1, "0x01 0xF1\n0x03 0x00\n0x02 0x20\n0x01 0xF1\n", "line 4 (last row): no row selects page 0x20"},
    };
    const std::string path = testing::TempDir() + "vqx_table_" + std::to_string(getpid()) + ".regs";
    std::vector<Register_pair> out;
    std::string error;
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text);
        FILE* f = std::fopen(path.c_str(), "w");
        ASSERT_NE(nullptr, f);
        std::string text = r.text;
        std::replace(text.begin(), text.end(), '@', '\0');
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
        const Register_table_file& table = tables[r.table];
        EXPECT_EQ(!r.reason, table.load_from(path, out, error)) << error;
        if (!r.reason) {
            ASSERT_EQ(table.row_count, out.size());
            EXPECT_EQ(table.last_register, out.back().address);
            EXPECT_EQ(r.table ? 0x20 : 0xA7FF, out[1].value);
        } else {
            EXPECT_TRUE(out.empty());
            EXPECT_NE(std::string::npos, error.find(path + "\": " + r.reason)) << error;
        }
    }
    std::remove(path.c_str());
    EXPECT_FALSE(tables[0].load_from(path, out, error));
    EXPECT_NE(std::string::npos, error.find("cannot open")) << error;
    for (const Register_table_file* table : {&x5501_full_table, &rilo_init_table}) {
        EXPECT_TRUE(table->load_from(std::string(VQX_TABLE_SOURCE_DIR "/") + table->file_name, out, error)) << error;
        EXPECT_EQ(table->row_count, out.size());
    }
}

}  // namespace
