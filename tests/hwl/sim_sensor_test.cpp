// The AR0144 model's registers, exposure latency and the rendering physics.
#include <gtest/gtest.h>

#include <png.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#define ZX_USE_UTF8 1
#include <ZXing/ReadBarcode.h>

#include "Renderer.h"
#include "Scene.h"
#include "Simulator.h"

namespace {

/// Records the handles of vsync callbacks.
struct Vsync_log {
    std::mutex mutex;
    std::vector<int> handles;

    static void callback(int handle, void* context)
    {
        auto* log = static_cast<Vsync_log*>(context);
        std::lock_guard<std::mutex> hold(log->mutex);
        log->handles.push_back(handle);
    }
};

/// A step-mode configuration.
vqxsim::Config step_config(vqxsim::Render_mode render = vqxsim::Render_mode::fast)
{
    vqxsim::Config c;
    c.real_time = false;
    c.render = render;
    return c;
}

std::unique_ptr<vqxsim::Simulator> make_sim(const vqxsim::Config& c)
{
    std::string error;
    std::unique_ptr<vqxsim::Simulator> sim = vqxsim::Simulator::create(c, &error);
    EXPECT_TRUE(sim) << error;
    return sim;
}

IHwl::Image_buffer_pointers* buffers(IHwl& hwl)
{
    uint64_t n = 0;
    return hwl.GetImageBuffers(n);
}

bool write16(IHwl& hwl, unsigned address, uint16_t value) { return hwl.WriteReg(address, &value, 2); }

uint16_t read16(IHwl& hwl, unsigned address)
{
    uint16_t v = 0xDEAD;
    EXPECT_TRUE(hwl.ReadReg(address, &v, 2)) << std::hex << address;
    return v;
}

/// Supply, wake, PLL and exposure as the engine's table sets them, vsync
/// registration, transfer start and streaming.
void start_streaming(IHwl& hwl, Vsync_log& log, uint16_t rows = 50, uint16_t analog_gain = 0)
{
    ASSERT_TRUE(hwl.ImagerPowerOn());
    ASSERT_TRUE(hwl.ImagerPowerUp());
    uint16_t pll[] = {4, 2, 1, 0x4A};  // 0x302A, 0x302C, 0x302E, 0x3030: 74 MHz
    ASSERT_TRUE(hwl.WriteReg(0x302A, pll, sizeof pll));
    ASSERT_TRUE(write16(hwl, 0x300C, 1492));
    ASSERT_TRUE(write16(hwl, 0x3012, rows));
    ASSERT_TRUE(write16(hwl, 0x3014, 0));
    ASSERT_TRUE(write16(hwl, 0x3060, analog_gain));
    ASSERT_TRUE(hwl.RegisterVsyncNotification(&Vsync_log::callback, &log));
    ASSERT_TRUE(hwl.StartScanning());
    ASSERT_TRUE(write16(hwl, 0x301A, 0x30DC));
}

/// Arms buffer @p index and steps one frame; returns the frame's image.
const unsigned char* capture(vqxsim::Simulator& sim, unsigned index = 0)
{
    IHwl::Image_buffer_pointers* b = buffers(*sim.hwl());
    EXPECT_TRUE(sim.hwl()->InitCapture(b[index].handle));
    EXPECT_EQ(1u, sim.step(1));
    return b[index].image;
}


constexpr unsigned W = 1280, H = 800;

double mean(const unsigned char* p, size_t x0, size_t x1, size_t y0, size_t y1)
{
    double sum = 0;
    for (size_t y = y0; y < y1; ++y)
        for (size_t x = x0; x < x1; ++x)
            sum += p[y * W + x];
    return sum / double((x1 - x0) * (y1 - y0));
}

unsigned percentile(const unsigned char* p, double q)
{
    std::vector<unsigned char> v(p, p + size_t(W) * H);
    std::nth_element(v.begin(), v.begin() + long(q * double(v.size())), v.end());
    return v[size_t(q * double(v.size()))];
}

// Writes a register and restarts the stream (leaving standby does that) so
// it applies to the next frame; returns that frame's mean level.
double mean_after(vqxsim::Simulator& sim, unsigned address, uint16_t value)
{
    IHwl& hwl = *sim.hwl();
    EXPECT_TRUE(write16(hwl, address, value) && hwl.ImagerPowerDown() && hwl.ImagerPowerUp());
    double m = mean(capture(sim, 0), 0, W, 0, H);
    hwl.ReleaseBuffer(0x1001);
    return m;
}

}  // namespace

TEST(SimAR0144, RegisterSemantics)
{
    auto sim = make_sim(step_config());
    IHwl& hwl = *sim->hwl();
    uint16_t v = 0;
    EXPECT_FALSE(hwl.ReadReg(0x3000, &v, 2)) << "no access without supply";
    ASSERT_TRUE(hwl.ImagerPowerOn());
    EXPECT_EQ(0x0356, read16(hwl, 0x3000));
    EXPECT_TRUE(write16(hwl, 0x3000, 0x1111));
    EXPECT_EQ(0x0356, read16(hwl, 0x3000)) << "chip id is read only";

    // Bursts: length 2n writes n registers two addresses apart.
    uint16_t burst[] = {123, 45};
    ASSERT_TRUE(hwl.WriteReg(0x3012, burst, 4));
    EXPECT_EQ(123, read16(hwl, 0x3012));
    EXPECT_EQ(45, read16(hwl, 0x3014));
    uint16_t two[2] = {};
    ASSERT_TRUE(hwl.ReadReg(0x3012, two, 4));
    EXPECT_EQ(45, two[1]);
    EXPECT_FALSE(hwl.WriteReg(0x3012, burst, 3)) << "odd burst length";
    EXPECT_FALSE(hwl.WriteReg(0x3012, burst, 0));
    EXPECT_FALSE(hwl.WriteReg(0xFFFF, burst, 2)) << "past the register space";
    EXPECT_FALSE(hwl.WriteReg(0x3012, nullptr, 2));

    // 8-bit registers move one byte.
    uint16_t byte = 0x1FF;
    ASSERT_TRUE(hwl.WriteReg(0x301D, &byte, 1));
    EXPECT_EQ(0xFF, sim->reg(0x301D));
    ASSERT_TRUE(hwl.ReadReg(0x301C, &byte, 1));
    EXPECT_EQ(0, byte);

    // Status: standby bit until streaming, PLL bit once a PLL register is written.
    EXPECT_EQ(0x0002, read16(hwl, 0x303C));
    ASSERT_TRUE(write16(hwl, 0x3030, 0x4A));
    EXPECT_EQ(0x000A, read16(hwl, 0x303C));
    ASSERT_TRUE(hwl.ImagerPowerUp());
    ASSERT_TRUE(write16(hwl, 0x301A, 0x085C));
    EXPECT_EQ(0x0008, read16(hwl, 0x303C));
    ASSERT_TRUE(hwl.ImagerPowerDown());
    EXPECT_EQ(0x000A, read16(hwl, 0x303C)) << "standby shows in the status";
    ASSERT_TRUE(hwl.ImagerPowerUp());

    // The frame counter counts frames.
    Vsync_log log;
    ASSERT_TRUE(hwl.RegisterVsyncNotification(&Vsync_log::callback, &log));
    ASSERT_TRUE(hwl.StartScanning());
    uint16_t before = read16(hwl, 0x303A);
    capture(*sim, 0);
    capture(*sim, 1);
    EXPECT_EQ(before + 2, read16(hwl, 0x303A));
    EXPECT_EQ(0, read16(hwl, 0x306A));

    // Reset bit: power-on values again, bit self-clearing, PLL unlocked.
    ASSERT_TRUE(write16(hwl, 0x301A, 0x1859));
    EXPECT_EQ(0x1858, read16(hwl, 0x301A));
    EXPECT_EQ(0x0010, read16(hwl, 0x3012));
    EXPECT_EQ(0x0002, read16(hwl, 0x303C) & 0x000A);
    EXPECT_EQ(0, read16(hwl, 0x303A));
    // A sensor that does not stream fills no buffer, armed or not.
    hwl.ReleaseBuffer(0x1001);
    ASSERT_TRUE(hwl.InitCapture(0x1001));
    EXPECT_EQ(0u, sim->step(1, 20));
}

TEST(SimAR0144, ExposureAndGainTakeEffectTwoFramesAfterTheWrite)
{
    auto sim = make_sim(step_config());
    IHwl& hwl = *sim->hwl();
    Vsync_log log;
    start_streaming(hwl, log, 40, 0x00);
    capture(*sim, 0);  // frame 1
    hwl.ReleaseBuffer(0x1001);
    // Written in frame 1's period (after its readout began, before frame 2's):
    // frame 3 is the first to use them.
    ASSERT_TRUE(write16(hwl, 0x3012, 90));
    ASSERT_TRUE(write16(hwl, 0x3014, 740));
    ASSERT_TRUE(write16(hwl, 0x3060, 0x2F));  // 4 x 32/17
    ASSERT_TRUE(write16(hwl, 0x305E, 0x100));
    for (unsigned i = 0; i < 2; ++i) {
        capture(*sim, i % 2);
        hwl.ReleaseBuffer(0x1001 + int(i % 2));
    }
    std::vector<vqxsim::Frame_record> f = sim->frames();
    ASSERT_EQ(3u, f.size());
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i + 1);
        EXPECT_EQ((std::vector<uint64_t>{uint64_t(i + 1), 40}), (std::vector<uint64_t>{f[i].number, f[i].rows}));
        EXPECT_TRUE(f[i].exposure_us == 800.0 && f[i].gain == 1.0) << f[i].exposure_us << " us x" << f[i].gain;
    }
    EXPECT_EQ(90u, f[2].rows);
    EXPECT_EQ(20.0, f[2].line_time_us);
    EXPECT_NEAR(90 * 20 + 10.0, f[2].exposure_us, 1e-9);  // 740 clocks at 74 MHz
    EXPECT_NEAR(4 * 32.0 / 17.0 * 2.0, f[2].gain, 1e-9);
    EXPECT_EQ(0x2F, f[2].analog_gain_code);
    EXPECT_EQ(0x100, f[2].digital_gain_code);
}

TEST(SimRender, MonotonicInExposureAndGainAndSaturates)
{
    vqxsim::Config c = step_config(vqxsim::Render_mode::full);
    c.scene = vqxsim::Scene_kind::flat;
    c.flat_level = 128;
    auto sim = make_sim(c);
    IHwl& hwl = *sim->hwl();
    Vsync_log log;
    start_streaming(hwl, log, 10);
    ASSERT_TRUE(hwl.IllumOn());
    double last = -1.0;
    for (uint16_t rows : {10, 20, 40, 80, 1000}) {
        double m = mean_after(*sim, 0x3012, rows);
        EXPECT_GT(m, last) << rows << " rows";
        last = m;
    }
    EXPECT_EQ(255.0, last) << "a long exposure saturates";

    ASSERT_TRUE(write16(hwl, 0x3012, 20));
    last = -1.0;
    for (uint16_t gain : {0x00, 0x08, 0x10, 0x20, 0x30}) {
        double m = mean_after(*sim, 0x3060, gain);
        EXPECT_GT(m, last) << "analog gain 0x" << std::hex << gain;
        last = m;
    }
}

// The aimer lights a fixed part of the field of view: the same share of the
// pixels on every engine's frame size.
TEST(SimRender, AimerIsTheSameShareOfEveryFrameSize)
{
    double reference = 0.0;
    const struct { unsigned w, h; } sizes[] = {{1280, 800}, {752, 480}, {640, 480}};
    for (const auto& size : sizes) {
        const unsigned w = size.w, h = size.h;
        auto scene = std::make_shared<vqxsim::Scene>();
        scene->width = w;
        scene->height = h;
        scene->reflectance.assign(size_t(w) * h, 200);
        vqxsim::Renderer renderer(w, h, 1);
        vqxsim::Render_params p;
        p.light = 0.1;
        p.exposure_us = 1000.0;
        p.mode = vqxsim::Render_mode::fast;
        std::vector<unsigned char> off(size_t(w) * h), on(size_t(w) * h);
        renderer.render(scene, p, off.data());
        p.aimer_light = 3.0;
        renderer.render(scene, p, on.data());
        size_t lit = 0;
        for (size_t i = 0; i < off.size(); ++i)
            lit += on[i] > off[i] + 50;
        const double share = double(lit) / double(off.size());
        reference = reference > 0.0 ? reference : share;
        EXPECT_NEAR(1.0, share / reference, 0.05) << w << " x " << h;
    }
}

TEST(SimRender, CalibrationLightsAimerAndDecodableBarcode)
{
    for (vqxsim::Barcode_format format : {vqxsim::Barcode_format::code128, vqxsim::Barcode_format::qr_code}) {
        vqxsim::Config c = step_config(vqxsim::Render_mode::full);
        c.format = format;
        auto sim = make_sim(c);
        IHwl& hwl = *sim->hwl();
        Vsync_log log;
        start_streaming(hwl, log, 50);  // 1 ms at unity gain
        const unsigned char* dark = capture(*sim, 0);
        unsigned p97_dark = percentile(dark, 0.97);
        double centre_dark = mean(dark, W / 2 - 8, W / 2 + 8, H / 2 - 8, H / 2 + 8);
        ASSERT_TRUE(hwl.IllumOn());
        const unsigned char* lit = capture(*sim, 1);
        unsigned p97 = percentile(lit, 0.97);
        EXPECT_GE(p97, 105u);
        EXPECT_LE(p97, 135u);
        EXPECT_LT(p97_dark * 5, p97) << "ambient alone is far darker";

        ZXing::ImageView view(lit, int(W), int(H), ZXing::ImageFormat::Lum);
        ZXing::Result result = ZXing::ReadBarcode(view);
        ASSERT_TRUE(result.isValid());
        EXPECT_EQ("VQX-SIM-0001", result.text());

        hwl.ReleaseBuffer(0x1001);
        ASSERT_TRUE(hwl.IllumOff());
        ASSERT_TRUE(hwl.AimOn());
        const unsigned char* aimed = capture(*sim, 0);
        EXPECT_GT(mean(aimed, W / 2 - 8, W / 2 + 8, H / 2 - 8, H / 2 + 8), centre_dark + 20.0);
    }
}

TEST(SimRender, OrientationReadModeAndPictureScenes)
{
    struct Case {
        uint16_t orientation, read_mode;
        bool reversed;
    };
    for (Case k : {Case{0, 0x0000, false}, Case{0, 0x4000, true}, Case{180, 0x0000, true}, Case{180, 0xC000, false}}) {
        vqxsim::Config c = step_config();
        c.scene = vqxsim::Scene_kind::ramp;
        c.orientation = k.orientation;
        auto sim = make_sim(c);
        Vsync_log log;
        start_streaming(*sim->hwl(), log, 100);
        ASSERT_TRUE(write16(*sim->hwl(), 0x3040, k.read_mode));
        const unsigned char* p = capture(*sim, 0);
        bool left_darker = mean(p, 0, 100, 0, H) < mean(p, W - 100, W, 0, H);
        EXPECT_EQ(!k.reversed, left_darker) << k.orientation << " / 0x" << std::hex << k.read_mode;
    }

    // A picture: left half black, right half white, as PGM and as PNG.
    std::vector<uint8_t> pixels(64 * 40);
    for (unsigned y = 0; y < 40; ++y)
        for (unsigned x = 32; x < 64; ++x)
            pixels[y * 64 + x] = 250;
    std::string pgm = ::testing::TempDir() + "vqxsim_scene.pgm";
    std::string png = ::testing::TempDir() + "vqxsim_scene.png";
    {
        std::ofstream out(pgm, std::ios::binary);
        out << "P5\n# test\n64 40\n255\n";
        out.write(reinterpret_cast<const char*>(pixels.data()), std::streamsize(pixels.size()));
    }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = 64;
    image.height = 40;
    image.format = PNG_FORMAT_GRAY;
    ASSERT_TRUE(png_image_write_to_file(&image, png.c_str(), 0, pixels.data(), 0, nullptr));
    for (const std::string& file : {pgm, png}) {
        vqxsim::Config c = step_config();
        c.scene = vqxsim::Scene_kind::image_file;
        c.image_file = file;
        auto sim = make_sim(c);
        Vsync_log log;
        start_streaming(*sim->hwl(), log, 100);
        ASSERT_TRUE(sim->hwl()->IllumOn());
        const unsigned char* p = capture(*sim, 0);
        EXPECT_LT(mean(p, 100, 500, 300, 500) + 100, mean(p, 800, 1200, 300, 500)) << file;
    }
    std::remove(pgm.c_str());
    std::remove(png.c_str());
}
