// The logging decorators forward every operation with its arguments and
// result and do not own the wrapped layer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

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

// One forwarded call: the layer sees the arguments, the caller its answer.
#define FORWARDS(call, result)                        \
    EXPECT_CALL(mock, call).WillOnce(Return(result)); \
    EXPECT_EQ(result, hwl.call)
#define FORWARDS_VOID(call) \
    EXPECT_CALL(mock, call); \
    hwl.call

TYPED_TEST(Decorator_test, ForwardsEveryOperationAndDoesNotOwnTheLayer)
{
    bool destroyed = false;
    StrictMock<typename TypeParam::Mock> mock(&destroyed);
    auto dec = std::make_unique<typename TypeParam::Decorator>(&mock);
    IHwl& hwl = *dec;  // calls go through the vtable, as the traits make them

    unsigned char bytes[3] = {1, 2, 3};
    uint16_t words[2] = {7, 8};
    IHwl::Image_buffer_pointers array[1] = {};
    IHwl::Config config{};
    int ctx = 0;

    FORWARDS(IsPsocSupported(), true);
    FORWARDS(WriteIIC_PSOC(0x32, bytes, 3u), true);
    FORWARDS(ReadIIC_PSOC(0x4F, bytes, 1u), true);
    EXPECT_CALL(mock, EngineType()).WillOnce(Return("WRAPPED"));
    EXPECT_STREQ("WRAPPED", hwl.EngineType());
    EXPECT_CALL(mock, GetImageBuffers(_)).WillOnce([&](uint64_t& n) { n = 5; return array; });
    uint64_t n = 0;
    EXPECT_EQ(array, hwl.GetImageBuffers(n));
    EXPECT_EQ(5u, n);
    FORWARDS_VOID(ReleaseBuffer(0x1234));
    FORWARDS(RegisterVsyncNotification(&vsync_fn, &ctx), false);
    FORWARDS(GetScanHeight(), 801u);
    FORWARDS(GetScanWidth(), 1281u);
    unsigned before = Synchroniztion_internal::MT_GetTickCount();
    FORWARDS(ImagerPowerUp(), false);
    FORWARDS(ImagerPowerDown(), true);
    FORWARDS(ImagerPowerOn(), false);
    FORWARDS(ImagerPowerOff(), true);
    EXPECT_LE(dec->power_tick - before, 1000u);  // a timing point was taken
    FORWARDS(InitCapture(-7), true);
    FORWARDS_VOID(StartSnapshot());
    FORWARDS(ResetTransferHardware(), false);
    FORWARDS(AimOn(), false);
    FORWARDS(AimOff(), true);
    FORWARDS(IllumConfig(0xABCDu), false);
    FORWARDS(IllumOn(), true);
    FORWARDS(IllumOff(), false);
    FORWARDS(WriteReg(0x3012u, words, 4u), false);
    FORWARDS(ReadReg(0x303Cu, words, 1u), true);
    EXPECT_CALL(mock, GetConfig(&config)).WillOnce([](IHwl::Config* c) { c->register_table = 9; });
    hwl.GetConfig(&config);
    EXPECT_EQ(9u, config.register_table);
    FORWARDS(LoadCaptureInfo(), false);
    FORWARDS(EnableVsyncProcessing(), false);
    FORWARDS(StartScanning(), false);
    FORWARDS(StopScanning(), false);
    FORWARDS(OpenSession(), false);
    FORWARDS_VOID(CloseSession());
    FORWARDS(RequestStopScanning(&stop_fn, &ctx), false);
    if constexpr (std::is_same_v<typename TypeParam::Mock, Mock_aptina>) {
        IHwl_aptina& hwl = *dec;  // the engine's own operations too
        FORWARDS(LedControlState(3u), false);
        FORWARDS(SetExposureGain(1, 0xFFFF, 3), true);
        FORWARDS(RowTime(), 35u);
        FORWARDS_VOID(CancelDeferredInitCapture());
    }
    dec.reset();
    EXPECT_FALSE(destroyed);
}

TEST(Decorators, WriteIICGoesToWriteReg)
{
    uint16_t words[3] = {1, 2, 3};
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

}  // namespace
