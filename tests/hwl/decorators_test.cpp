// The logging decorators forward every operation with its arguments and
// result, do not own the wrapped layer, and the IHwl base defaults hold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Hwl_logging.h"
#include "Synchronization.h"

using ::testing::_;
using ::testing::Return;
using ::testing::StrictMock;

namespace {

template <class Interface>
class Mock_hwl : public Interface {
public:
    explicit Mock_hwl(bool* destroyed = nullptr) : destroyed(destroyed) {}
    ~Mock_hwl() override { if (destroyed) *destroyed = true; }

    MOCK_METHOD(bool, IsPsocSupported, (), (override));
    MOCK_METHOD(bool, WriteIIC_PSOC, (unsigned char, unsigned char*, unsigned int), (override));
    MOCK_METHOD(bool, ReadIIC_PSOC, (unsigned char, unsigned char*, unsigned int), (override));
    MOCK_METHOD(const char*, EngineType, (), (override));
    MOCK_METHOD(IHwl::Image_buffer_pointers*, GetImageBuffers, (uint64_t&), (override));
    MOCK_METHOD(void, ReleaseBuffer, (int), (override));
    MOCK_METHOD(bool, RegisterVsyncNotification, (IHwl::Vsync_callback, void*), (override));
    MOCK_METHOD(unsigned int, GetScanHeight, (), (override));
    MOCK_METHOD(unsigned int, GetScanWidth, (), (override));
    MOCK_METHOD(bool, ImagerPowerUp, (), (override));
    MOCK_METHOD(bool, ImagerPowerDown, (), (override));
    MOCK_METHOD(bool, ImagerPowerOn, (), (override));
    MOCK_METHOD(bool, ImagerPowerOff, (), (override));
    MOCK_METHOD(bool, InitCapture, (int), (override));
    MOCK_METHOD(void, StartSnapshot, (), (override));
    MOCK_METHOD(bool, ResetTransferHardware, (), (override));
    MOCK_METHOD(bool, AimOn, (), (override));
    MOCK_METHOD(bool, AimOff, (), (override));
    MOCK_METHOD(bool, IllumConfig, (unsigned int), (override));
    MOCK_METHOD(bool, IllumOn, (), (override));
    MOCK_METHOD(bool, IllumOff, (), (override));
    MOCK_METHOD(bool, WriteReg, (unsigned int, uint16_t*, uint64_t), (override));
    MOCK_METHOD(bool, ReadReg, (unsigned int, uint16_t*, uint64_t), (override));
    MOCK_METHOD(void, GetConfig, (IHwl::Config*), (override));
    MOCK_METHOD(bool, LoadCaptureInfo, (), (override));
    MOCK_METHOD(bool, EnableVsyncProcessing, (), (override));
    MOCK_METHOD(bool, StartScanning, (), (override));
    MOCK_METHOD(bool, StopScanning, (), (override));
    MOCK_METHOD(bool, OpenSession, (), (override));
    MOCK_METHOD(void, CloseSession, (), (override));
    MOCK_METHOD(bool, RequestStopScanning, (IHwl::Stop_callback, void*), (override));

private:
    bool* destroyed;
};

class Mock_aptina : public Mock_hwl<IHwl_aptina> {
public:
    using Mock_hwl<IHwl_aptina>::Mock_hwl;
    MOCK_METHOD(bool, LedControlState, (unsigned int), (override));
    MOCK_METHOD(bool, SetExposureGain, (uint16_t, uint16_t, uint16_t), (override));
    MOCK_METHOD(unsigned int, RowTime, (), (override));
    MOCK_METHOD(void, CancelDeferredInitCapture, (), (override));
};

template <class D, class M>
struct Case {
    using Decorator = D;
    using Mock = M;
};

template <class C>
class Decorator_test : public ::testing::Test {};

using Cases = ::testing::Types<Case<Hwl_logging, Mock_hwl<IHwl>>, Case<Hwl_logging_kelp, Mock_hwl<IHwl_kelp>>,
                               Case<Hwl_logging_rilo, Mock_hwl<IHwl_rilo>>, Case<Hwl_logging_aptina, Mock_aptina>,
                               Case<Hwl_logging_MT9V022, Mock_hwl<IHwl_MT9V022>>,
                               Case<Hwl_logging_AR0144, Mock_hwl<IHwl_AR0144>>,
                               Case<Hwl_logging_x5501, Mock_hwl<IHwl_x5501>>>;
TYPED_TEST_SUITE(Decorator_test, Cases);

void vsync_fn(int, void*) {}
void stop_fn(void*) {}

TYPED_TEST(Decorator_test, ForwardsEveryOperationWithArgumentsAndResult)
{
    StrictMock<typename TypeParam::Mock> mock;
    typename TypeParam::Decorator dec(&mock);
    IHwl& hwl = dec;  // calls go through the vtable, as the traits make them

    unsigned char bytes[3] = {1, 2, 3};
    uint16_t words[2] = {7, 8};
    IHwl::Image_buffer_pointers array[1] = {};
    IHwl::Config config{};
    int ctx = 0;

    EXPECT_CALL(mock, IsPsocSupported()).WillOnce(Return(true));
    EXPECT_CALL(mock, WriteIIC_PSOC(0x32, bytes, 3u)).WillOnce(Return(true));
    EXPECT_CALL(mock, ReadIIC_PSOC(0x4F, bytes, 1u)).WillOnce(Return(true));
    EXPECT_CALL(mock, EngineType()).WillOnce(Return("WRAPPED"));
    EXPECT_CALL(mock, GetImageBuffers(_)).WillOnce([&](uint64_t& n) { n = 5; return array; });
    EXPECT_CALL(mock, ReleaseBuffer(0x1234));
    EXPECT_CALL(mock, RegisterVsyncNotification(&vsync_fn, &ctx)).WillOnce(Return(false));
    EXPECT_CALL(mock, GetScanHeight()).WillOnce(Return(801u));
    EXPECT_CALL(mock, GetScanWidth()).WillOnce(Return(1281u));
    EXPECT_CALL(mock, ImagerPowerUp()).WillOnce(Return(false));
    EXPECT_CALL(mock, ImagerPowerDown()).WillOnce(Return(true));
    EXPECT_CALL(mock, ImagerPowerOn()).WillOnce(Return(false));
    EXPECT_CALL(mock, ImagerPowerOff()).WillOnce(Return(true));
    EXPECT_CALL(mock, InitCapture(-7)).WillOnce(Return(true));
    EXPECT_CALL(mock, StartSnapshot());
    EXPECT_CALL(mock, ResetTransferHardware()).WillOnce(Return(false));
    EXPECT_CALL(mock, AimOn()).WillOnce(Return(false));
    EXPECT_CALL(mock, AimOff()).WillOnce(Return(true));
    EXPECT_CALL(mock, IllumConfig(0xABCDu)).WillOnce(Return(false));
    EXPECT_CALL(mock, IllumOn()).WillOnce(Return(true));
    EXPECT_CALL(mock, IllumOff()).WillOnce(Return(false));
    EXPECT_CALL(mock, WriteReg(0x3012u, words, 4u)).WillOnce(Return(false));
    EXPECT_CALL(mock, ReadReg(0x303Cu, words, 1u)).WillOnce(Return(true));
    EXPECT_CALL(mock, GetConfig(&config)).WillOnce([](IHwl::Config* c) { c->register_table = 9; });
    EXPECT_CALL(mock, LoadCaptureInfo()).WillOnce(Return(false));
    EXPECT_CALL(mock, EnableVsyncProcessing()).WillOnce(Return(false));
    EXPECT_CALL(mock, StartScanning()).WillOnce(Return(false));
    EXPECT_CALL(mock, StopScanning()).WillOnce(Return(false));
    EXPECT_CALL(mock, OpenSession()).WillOnce(Return(false));
    EXPECT_CALL(mock, CloseSession());
    EXPECT_CALL(mock, RequestStopScanning(&stop_fn, &ctx)).WillOnce(Return(false));

    EXPECT_TRUE(hwl.IsPsocSupported());
    EXPECT_TRUE(hwl.WriteIIC_PSOC(0x32, bytes, 3));
    EXPECT_TRUE(hwl.ReadIIC_PSOC(0x4F, bytes, 1));
    EXPECT_STREQ("WRAPPED", hwl.EngineType());
    uint64_t n = 0;
    EXPECT_EQ(array, hwl.GetImageBuffers(n));
    EXPECT_EQ(5u, n);
    hwl.ReleaseBuffer(0x1234);
    EXPECT_FALSE(hwl.RegisterVsyncNotification(&vsync_fn, &ctx));
    EXPECT_EQ(801u, hwl.GetScanHeight());
    EXPECT_EQ(1281u, hwl.GetScanWidth());
    unsigned before = Synchroniztion_internal::MT_GetTickCount();
    EXPECT_FALSE(hwl.ImagerPowerUp());
    EXPECT_TRUE(hwl.ImagerPowerDown());
    EXPECT_FALSE(hwl.ImagerPowerOn());
    EXPECT_TRUE(hwl.ImagerPowerOff());
    EXPECT_LE(dec.power_tick - before, 1000u);  // a timing point was taken
    EXPECT_TRUE(hwl.InitCapture(-7));
    hwl.StartSnapshot();
    EXPECT_FALSE(hwl.ResetTransferHardware());
    EXPECT_FALSE(hwl.AimOn());
    EXPECT_TRUE(hwl.AimOff());
    EXPECT_FALSE(hwl.IllumConfig(0xABCD));
    EXPECT_TRUE(hwl.IllumOn());
    EXPECT_FALSE(hwl.IllumOff());
    EXPECT_FALSE(hwl.WriteReg(0x3012, words, 4));
    EXPECT_TRUE(hwl.ReadReg(0x303C, words, 1));
    hwl.GetConfig(&config);
    EXPECT_EQ(9u, config.register_table);
    EXPECT_FALSE(hwl.LoadCaptureInfo());
    EXPECT_FALSE(hwl.EnableVsyncProcessing());
    EXPECT_FALSE(hwl.StartScanning());
    EXPECT_FALSE(hwl.StopScanning());
    EXPECT_FALSE(hwl.OpenSession());
    hwl.CloseSession();
    EXPECT_FALSE(hwl.RequestStopScanning(&stop_fn, &ctx));
}

TYPED_TEST(Decorator_test, DoesNotOwnTheWrappedLayer)
{
    bool destroyed = false;
    {
        StrictMock<typename TypeParam::Mock> mock(&destroyed);
        { typename TypeParam::Decorator dec(&mock); }
        EXPECT_FALSE(destroyed);
    }
    EXPECT_TRUE(destroyed);
}

TEST(Decorators, EngineDecoratorsAddTheirOperations)
{
    uint16_t words[3] = {1, 2, 3};
    StrictMock<Mock_aptina> aptina;
    Hwl_logging_aptina a(&aptina);
    EXPECT_CALL(aptina, LedControlState(3u)).WillOnce(Return(false));
    EXPECT_CALL(aptina, SetExposureGain(1, 0xFFFF, 3)).WillOnce(Return(true));
    EXPECT_CALL(aptina, RowTime()).WillOnce(Return(35u));
    EXPECT_CALL(aptina, CancelDeferredInitCapture());
    IHwl_aptina& ai = a;
    EXPECT_FALSE(ai.LedControlState(3));
    EXPECT_TRUE(ai.SetExposureGain(1, 0xFFFF, 3));
    EXPECT_EQ(35u, ai.RowTime());
    ai.CancelDeferredInitCapture();

    // WriteIIC goes to the wrapped WriteReg and returns only its truth value.
    StrictMock<Mock_hwl<IHwl_rilo>> rilo;
    Hwl_logging_rilo r(&rilo);
    EXPECT_CALL(rilo, WriteReg(0x20083u, words, 6u)).WillOnce(Return(false)).WillOnce(Return(true));
    EXPECT_FALSE(r.WriteIIC(0x20083u, words, 6));
    EXPECT_TRUE(r.WriteIIC(0x20083u, words, 6));

    StrictMock<Mock_hwl<IHwl_x5501>> x5501;
    Hwl_logging_x5501 x(&x5501);
    EXPECT_CALL(x5501, WriteReg(0xFFFEu, words, 2u)).WillOnce(Return(true)).WillOnce(Return(false));
    EXPECT_TRUE(x.WriteIIC(uint16_t(0xFFFE), words, 2));  // widened, not sign-extended
    EXPECT_FALSE(x.WriteIIC(uint16_t(0xFFFE), words, 2));
}

// A layer that supplies only the pure operations.
class Minimal_hwl : public IHwl {
public:
    const char* EngineType() override { return "MIN"; }
    Image_buffer_pointers* GetImageBuffers(uint64_t& count) override { count = 0; return nullptr; }
    bool RegisterVsyncNotification(Vsync_callback, void*) override { return true; }
    unsigned int GetScanHeight() override { return 1; }
    unsigned int GetScanWidth() override { return 1; }
    bool ImagerPowerUp() override { return true; }
    bool ImagerPowerDown() override { return true; }
    bool ImagerPowerOn() override { return true; }
    bool ImagerPowerOff() override { return true; }
    bool ResetTransferHardware() override { return true; }
    bool AimOn() override { return true; }
    bool AimOff() override { return true; }
    bool IllumConfig(unsigned int) override { return true; }
    bool IllumOn() override { return true; }
    bool IllumOff() override { return true; }
    bool WriteReg(unsigned int, uint16_t*, uint64_t) override { return true; }
    bool ReadReg(unsigned int, uint16_t*, uint64_t) override { return true; }
};

void must_not_be_called(void* called) { *static_cast<bool*>(called) = true; }

TEST(Decorators, BaseDefaultsAndEngineTypes)
{
    Minimal_hwl base;
    unsigned char byte = 0x5A;
    EXPECT_FALSE(base.IsPsocSupported());
    EXPECT_FALSE(base.WriteIIC_PSOC(0x32, &byte, 1));
    EXPECT_FALSE(base.ReadIIC_PSOC(0, &byte, 1));
    EXPECT_EQ(0x5A, byte);
    EXPECT_FALSE(base.InitCapture(1));
    base.ReleaseBuffer(1);
    base.StartSnapshot();
    base.CloseSession();
    IHwl::Config config{24, 0xAAAAAAAA, 0xBBBBBBBB, 0xCCCCCCCC, 0xDDDDDDDD};
    base.GetConfig(&config);
    EXPECT_EQ(24u, config.size);
    EXPECT_EQ(3u, config.capture_mode);
    EXPECT_EQ(0xBBBBBBBBu, config.engine_variant);
    EXPECT_EQ(0xCCCCCCCCu, config.imager_link);
    EXPECT_EQ(0xDDDDDDDDu, config.register_table);
    EXPECT_TRUE(base.LoadCaptureInfo());
    EXPECT_TRUE(base.EnableVsyncProcessing());
    EXPECT_TRUE(base.StartScanning());
    EXPECT_TRUE(base.StopScanning());
    EXPECT_TRUE(base.OpenSession());
    bool called = false;
    EXPECT_TRUE(base.RequestStopScanning(&must_not_be_called, &called));
    EXPECT_FALSE(called);

    // The decorator passes the base answers through unchanged.
    Hwl_logging logged(&base);
    EXPECT_FALSE(logged.IsPsocSupported());
    EXPECT_FALSE(logged.InitCapture(1));
    EXPECT_STREQ("MIN", logged.EngineType());

    StrictMock<Mock_hwl<IHwl_kelp>> kelp;
    EXPECT_STREQ("KELP", kelp.IHwl_kelp::EngineType());
    EXPECT_STREQ("RILO", Mock_hwl<IHwl_rilo>().IHwl_rilo::EngineType());
    EXPECT_STREQ("APTINA", Mock_aptina().IHwl_aptina::EngineType());
    EXPECT_STREQ("MT9V022", Mock_hwl<IHwl_MT9V022>().IHwl_MT9V022::EngineType());
    EXPECT_STREQ("X7710", Mock_hwl<IHwl_AR0144>().IHwl_AR0144::EngineType());
    EXPECT_STREQ("X5501", Mock_hwl<IHwl_x5501>().IHwl_x5501::EngineType());
}

}  // namespace
