// Hardware-layer conformance suite.
//
// Loads a hardware-layer library (VQX_HWL_LIBRARY, or the simulator built
// with the tree), gets its layer from InitHWLayer(nullptr) and checks the
// contract the driver relies on, using nothing but IHwl: identity and
// configuration, a stable buffer array with distinct non-zero handles, frames
// only into armed buffers and in arming order, buffers that come back after
// ReleaseBuffer, callbacks from the layer's own thread that may call back into
// the layer, no frames in standby, both stop paths, PSoC behaviour and the
// optional operations the driver calls.
//
// Frame tests need a recipe that makes the engine stream (engine specific
// registers); engine types without one skip those tests. Every test leaves
// the layer stopped, in standby and with all buffers released.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "IHwl.h"

namespace {

// Loaded once; never unloaded (the layer may run threads of its own).
// Returns the layer, or null with the reason in @p error.
IHwl* load_layer(std::string& error)
{
    static std::string failure;
    static IHwl* hwl = [] () -> IHwl* {
        const char* path = std::getenv("VQX_HWL_LIBRARY");
        if (!path || !*path)
            path = VQX_DEFAULT_HWL_LIBRARY;
        void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        if (!handle)
            return failure = std::string("dlopen: ") + dlerror(), nullptr;
        auto init = reinterpret_cast<IHwl* (*)(void*)>(dlsym(handle, "InitHWLayer"));
        if (!init)
            return failure = std::string(path) + " does not export InitHWLayer", nullptr;
        IHwl* layer = init(nullptr);
        if (!layer)
            failure = std::string(path) + ": InitHWLayer(nullptr) returned null";
        return layer;
    }();
    error = failure;
    return hwl;
}

// How to make one engine type stream, and stop it again.
struct Recipe {
    const char* engine;
    bool (*start)(IHwl&);
    bool (*stop)(IHwl&);
};

bool write16(IHwl& hwl, unsigned address, uint16_t value) { return hwl.WriteReg(address, &value, 2); }

bool start_ar0144(IHwl& hwl)
{
    unsigned char reset = 1;
    if (!hwl.ImagerPowerOn() || !hwl.ImagerPowerUp())
        return false;
    if (hwl.IsPsocSupported() && !hwl.WriteIIC_PSOC(55, &reset, 1))
        return false;
    uint16_t clocks[] = {4, 2, 1, 0x4A};                         // 0x302A-0x3030: 74 MHz pixel clock
    uint16_t window[] = {0, 4, 0x031F, 0x0503, 0x0339, 0x05D4};  // 0x3002-0x300C
    return hwl.WriteReg(0x302A, clocks, sizeof clocks) && hwl.WriteReg(0x3002, window, sizeof window) &&
           write16(hwl, 0x3012, 50) && write16(hwl, 0x301A, 0x30DC);
}

bool stop_ar0144(IHwl& hwl) { return write16(hwl, 0x301A, 0x30D8); }

const Recipe kRecipes[] = {
    {"X7710", start_ar0144, stop_ar0144},
};

const Recipe* recipe_for(IHwl& hwl)
{
    for (const Recipe& r : kRecipes)
        if (std::strcmp(hwl.EngineType(), r.engine) == 0)
            return &r;
    return nullptr;
}

// A condition the layer's threads change and the test waits for.
struct Signal {
    std::mutex mutex;
    std::condition_variable changed;
    template <class P> bool wait(int ms, P done)
    {
        std::unique_lock<std::mutex> hold(mutex);
        return changed.wait_for(hold, std::chrono::milliseconds(ms), done);
    }
};

// Records vsync callbacks with a buffer (handle 0, an event without a
// buffer, is allowed and ignored); with `rearm` gives each buffer back and
// re-arms it from inside the callback.
struct Recorder : Signal {
    IHwl* hwl = nullptr;
    std::atomic<bool> rearm{false};
    std::vector<int> handles;
    std::set<std::thread::id> threads;

    static void vsync(int handle, void* self)
    {
        auto* r = static_cast<Recorder*>(self);
        if (handle == 0)
            return;
        if (r->rearm) {
            r->hwl->ReleaseBuffer(handle);
            r->hwl->InitCapture(handle);
            (void)r->hwl->GetScanWidth();
        }
        std::lock_guard<std::mutex> hold(r->mutex);
        r->handles.push_back(handle);
        r->threads.insert(std::this_thread::get_id());
        r->changed.notify_all();
    }
    bool wait_for(size_t count, int ms) { return wait(ms, [&] { return handles.size() >= count; }); }
    std::vector<int> seen()
    {
        std::lock_guard<std::mutex> hold(mutex);
        return handles;
    }
};

void ignore_vsync(int, void*) {}

struct Stop_probe : Signal {
    IHwl* hwl = nullptr;
    int calls = 0;
    std::thread::id thread;
    static void done(void* self)
    {
        auto* p = static_cast<Stop_probe*>(self);
        (void)p->hwl->GetScanHeight();  // the layer must not hold a lock of its own here
        std::lock_guard<std::mutex> hold(p->mutex);
        ++p->calls;
        p->thread = std::this_thread::get_id();
        p->changed.notify_all();
    }
};

class Conformance : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        hwl = load_layer(error);
        ASSERT_NE(nullptr, hwl) << error;
        array = hwl->GetImageBuffers(count);
    }

    void TearDown() override
    {
        if (!hwl)
            return;
        if (recipe)
            recipe->stop(*hwl);
        hwl->StopScanning();
        hwl->ImagerPowerDown();
        hwl->RegisterVsyncNotification(&ignore_vsync, nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // a frame in flight lands
        for (uint64_t i = 0; i < count; ++i)
            hwl->ReleaseBuffer(array[i].handle);
    }

    IHwl* hwl = nullptr;
    IHwl::Image_buffer_pointers* array = nullptr;
    uint64_t count = 0;
    const Recipe* recipe = nullptr;
};

// Streaming with `rec` registered; skips engines without a recipe.
class Streaming : public Conformance {
protected:
    void SetUp() override
    {
        Conformance::SetUp();
        if (HasFatalFailure())
            return;
        if (!recipe_for(*hwl))
            GTEST_SKIP() << "no streaming recipe for engine type " << hwl->EngineType();
        recipe = recipe_for(*hwl);
        rec.hwl = hwl;
        ASSERT_TRUE(hwl->RegisterVsyncNotification(&Recorder::vsync, &rec));
        ASSERT_TRUE(hwl->StartScanning());
        ASSERT_TRUE(hwl->GetImageBuffers(count) == array);
        ASSERT_TRUE(recipe->start(*hwl));
    }
    Recorder rec;
};

TEST_F(Conformance, IdentityAndConfiguration)
{
    const char* type = hwl->EngineType();
    ASSERT_NE(nullptr, type);
    const char* known[] = {"KELP", "RILO", "APTINA", "MT9V022", "X7710", "X5501", "X5503"};
    EXPECT_TRUE(std::any_of(std::begin(known), std::end(known), [&](const char* k) { return !std::strcmp(k, type); }))
        << "engine type \"" << type << "\" selects no engine";
    EXPECT_STREQ(type, hwl->EngineType()) << "the engine type is constant";
    EXPECT_GT(hwl->GetScanWidth(), 0u);
    EXPECT_GT(hwl->GetScanHeight(), 0u);
    IHwl::Config config{24, 3, 0, 1, 42};
    hwl->GetConfig(&config);
    EXPECT_EQ(24u, config.size) << "GetConfig must not change the size";
    EXPECT_LE(config.capture_mode, 7u);
    uint32_t orientation = config.engine_variant >> 16;
    EXPECT_TRUE(orientation == 0 || orientation == 180) << orientation;
}

TEST_F(Conformance, BufferArrayIsStableWithDistinctHandles)
{
    ASSERT_NE(nullptr, array);
    ASSERT_GE(count, 2u) << "the driver keeps one frame for the client while the next fills";
    std::vector<IHwl::Image_buffer_pointers> copy(array, array + count);
    uint64_t again = 0;
    EXPECT_EQ(array, hwl->GetImageBuffers(again));
    ASSERT_EQ(count, again);
    std::set<int> handles;
    size_t size = size_t(hwl->GetScanWidth()) * hwl->GetScanHeight();
    for (uint64_t i = 0; i < count; ++i) {
        EXPECT_EQ(0, std::memcmp(&copy[i], &array[i], sizeof copy[i])) << "entry " << i << " changed";
        EXPECT_NE(0, array[i].handle) << "entry " << i;
        handles.insert(array[i].handle);
        ASSERT_NE(nullptr, array[i].image);
        ASSERT_NE(nullptr, array[i].capture);
        // The driver writes markers over the whole capture frame and reads the image.
        std::memset(array[i].capture, 0xA5, size);
        EXPECT_EQ(0xA5, array[i].image[size - 1]);
    }
    EXPECT_EQ(count, handles.size()) << "handles must be distinct";
}

TEST_F(Conformance, OptionalOperationsTheDriverCalls)
{
    EXPECT_TRUE(hwl->OpenSession());
    EXPECT_TRUE(hwl->LoadCaptureInfo());
    EXPECT_TRUE(hwl->EnableVsyncProcessing());
    EXPECT_TRUE(hwl->StartScanning());
    hwl->StopScanning();  // either answer is allowed
    hwl->CloseSession();
    int unknown = 1;
    while (std::any_of(array, array + count, [&](const IHwl::Image_buffer_pointers& b) { return b.handle == unknown; }))
        ++unknown;
    EXPECT_FALSE(hwl->InitCapture(unknown)) << "a handle that is not in the array cannot be armed";
    EXPECT_TRUE(hwl->IllumConfig(0));
    EXPECT_TRUE(hwl->AimOff());
    EXPECT_TRUE(hwl->IllumOff());
}

TEST_F(Conformance, PsocRegisters)
{
    if (!hwl->IsPsocSupported())
        GTEST_SKIP() << "no PSoC fitted";
    unsigned char image[80];
    ASSERT_TRUE(hwl->ReadIIC_PSOC(0, image, 80)) << "the driver reads all 80 registers at once";
    unsigned char light = 0;
    ASSERT_TRUE(hwl->ReadIIC_PSOC(0x32, &light, 1));
    unsigned char value = light;
    ASSERT_TRUE(hwl->WriteIIC_PSOC(0x32, &value, 1));
    unsigned char back = static_cast<unsigned char>(~light);
    ASSERT_TRUE(hwl->ReadIIC_PSOC(0x32, &back, 1));
    EXPECT_EQ(light, back);
}

TEST_F(Streaming, FramesGoOnlyToArmedBuffersInArmingOrder)
{
    int a = array[0].handle, b = array[1].handle;
    ASSERT_TRUE(hwl->InitCapture(a));
    ASSERT_TRUE(rec.wait_for(1, 1000)) << "no frame within 1 s";
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(std::vector<int>{a}, rec.seen()) << "one frame per armed buffer, none without one";

    hwl->ReleaseBuffer(a);
    ASSERT_TRUE(hwl->InitCapture(b));
    ASSERT_TRUE(hwl->InitCapture(a));
    ASSERT_TRUE(rec.wait_for(3, 1000));
    EXPECT_EQ((std::vector<int>{a, b, a}), rec.seen());

    // A frame the driver reclaimed is re-armed without a release.
    ASSERT_TRUE(hwl->InitCapture(b));
    ASSERT_TRUE(rec.wait_for(4, 1000));
    EXPECT_EQ(b, rec.seen().back());
    std::lock_guard<std::mutex> hold(rec.mutex);
    EXPECT_EQ(0u, rec.threads.count(std::this_thread::get_id())) << "vsync comes from the layer's own thread";
}

TEST_F(Streaming, CallbacksMayCallTheLayerAndBuffersComeBack)
{
    rec.rearm = true;
    ASSERT_TRUE(hwl->InitCapture(array[1].handle));
    EXPECT_TRUE(rec.wait_for(5, 2000)) << "a buffer released and re-armed from the callback must fill again";
    for (int h : rec.seen())
        EXPECT_EQ(array[1].handle, h);
}

TEST_F(Streaming, NoFramesInStandby)
{
    ASSERT_TRUE(hwl->ImagerPowerDown());
    ASSERT_TRUE(hwl->InitCapture(array[0].handle));
    EXPECT_FALSE(rec.wait_for(1, 150)) << "a frame arrived in standby";
    ASSERT_TRUE(hwl->ImagerPowerUp());
    ASSERT_TRUE(recipe->start(*hwl));
    EXPECT_TRUE(rec.wait_for(1, 1000)) << "no frame after leaving standby";
}

TEST_F(Streaming, StopRequestIsImmediateOrConfirmedOnce)
{
    ASSERT_TRUE(hwl->InitCapture(array[0].handle));
    ASSERT_TRUE(rec.wait_for(1, 1000));
    Stop_probe probe;
    probe.hwl = hwl;
    auto called = [&] { return probe.calls > 0; };
    if (hwl->RequestStopScanning(&Stop_probe::done, &probe)) {
        EXPECT_FALSE(probe.wait(200, called)) << "an immediate stop must not call back";
    } else {
        ASSERT_TRUE(probe.wait(2000, called)) << "a deferred stop must be confirmed within the driver's 2000 ms";
        probe.wait(100, [&] { return probe.calls > 1; });
        std::lock_guard<std::mutex> hold(probe.mutex);
        EXPECT_NE(std::this_thread::get_id(), probe.thread);
        EXPECT_EQ(1, probe.calls) << "confirmed exactly once";
    }
}

}  // namespace
