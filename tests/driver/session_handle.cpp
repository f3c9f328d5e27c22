// Session handles: sharing and releasing bodies, the record size rules of the
// handle's lights and exposure forwarding, and what every exported function
// does with an uninitialised session.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <VQXScanInterface.h>

#include "Scan_session_body.h"
#include "scan_session.h"
#include "test_scope.h"

namespace {

// A body that keeps lights and exposure and counts its destruction.
class Test_body : public Scan_session_body {
public:
    explicit Test_body(int* destroyed) : destroyed(destroyed) {}
    ~Test_body() override { ++*destroyed; }

    bool Stop_scanning(bool) override { return true; }
    bool Get_lights(_tagVQX_SCANNER_LIGHTING& out) const override { out = lights; return true; }
    bool Set_lights(const _tagVQX_SCANNER_LIGHTING& in) override { lights = in; return true; }
    bool Get_exposure(Exposure_settings& out) const override { out = exposure; return true; }
    bool Set_exposure(const Exposure_settings& in) override { exposure = in; return true; }
    unsigned int Get_scan_lock_count() const override { return static_cast<unsigned>(ref_cnt); }

    _tagVQX_SCANNER_LIGHTING lights{28, 5, 0, 0, 100, 100, 0};
    Exposure_settings exposure;
    int* destroyed;
};

// A handle that can be pointed at a body, as open_session does.
struct Test_handle : Scan_session {
    Test_handle() = default;
    explicit Test_handle(Scan_session_body& b) { *static_cast<Scan_session*>(this) = b; }
    Scan_session_body* get_body() const { return body; }
};

TEST(SessionHandle, CopiesShareTheBodyAndTheLastOneDestroysIt)
{
    int destroyed = 0, destroyed_b = 0;
    auto* body = new Test_body(&destroyed);
    auto* first = new Test_handle(*body);
    EXPECT_EQ(1u, body->ref_cnt);
    {
        Test_handle second(*first);
        EXPECT_EQ(body, second.get_body());
        Test_handle third;
        third = second;
        EXPECT_EQ(3u, body->ref_cnt);
        third = third;  // self-assignment keeps the body
        EXPECT_EQ(3u, body->ref_cnt);
        third.release();
        EXPECT_EQ(nullptr, third.get_body());
        EXPECT_FALSE(third);
        EXPECT_EQ(2u, body->ref_cnt);
    }
    EXPECT_EQ(1u, body->ref_cnt);
    EXPECT_EQ(0, destroyed);
    EXPECT_TRUE(*first);
    // Assignment drops the old body.
    Test_handle b(*new Test_body(&destroyed_b));
    *first = b;
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(2u, b.get_body()->ref_cnt);
    delete first;
    EXPECT_EQ(0, destroyed_b);
    b.release();
    EXPECT_EQ(1, destroyed_b);
}

TEST(SessionHandle, LightsAndExposureCopyAtMostTheSmallerRecord)
{
    int destroyed = 0;
    Test_handle handle(*new Test_body(&destroyed));
    auto* body = static_cast<Test_body*>(handle.get_body());

    // Setting 12 bytes changes the scanning and idle modes only.
    _tagVQX_SCANNER_LIGHTING in{12, 2, 1, 77, 77, 77, 77};
    EXPECT_TRUE(handle.Set_lights(in));
    EXPECT_EQ(28u, body->lights.size);
    EXPECT_EQ(2u, body->lights.scanning_mode);
    EXPECT_EQ(1u, body->lights.idle_mode);
    EXPECT_EQ(0u, body->lights.reserved);
    EXPECT_EQ(100u, body->lights.level_a);

    // Reading 12 bytes reports 12 and leaves the rest of the record alone.
    _tagVQX_SCANNER_LIGHTING out{12, 0, 0, 9, 9, 9, 9};
    EXPECT_TRUE(handle.Get_lights(out));
    EXPECT_EQ(12u, out.size);
    EXPECT_EQ(2u, out.scanning_mode);
    EXPECT_EQ(1u, out.idle_mode);
    EXPECT_EQ(9u, out.reserved);

    // A caller record claiming 40 bytes receives 28.
    struct { _tagVQX_SCANNER_LIGHTING lights; unsigned char tail[12]; } big;
    std::memset(&big, 0xAB, sizeof big);
    big.lights.size = 40;
    EXPECT_TRUE(handle.Get_lights(big.lights));
    EXPECT_EQ(28u, big.lights.size);
    EXPECT_EQ(0xAB, big.tail[0]);

    // Exposure: 8 bytes set only the mode; the size field stays 80.
    Exposure_settings e;
    e.size = 8;
    e.mode = 3;
    e.exposure_method = 0;
    EXPECT_TRUE(handle.Set_exposure(e));
    EXPECT_EQ(80u, body->exposure.size);
    EXPECT_EQ(3u, body->exposure.mode);
    EXPECT_EQ(2u, body->exposure.exposure_method);
    Exposure_settings got;
    got.size = 200;
    EXPECT_TRUE(handle.Get_exposure(got));
    EXPECT_EQ(80u, got.size);
    EXPECT_EQ(3u, got.mode);
}

TEST(SessionHandle, UninitialisedSessionFailsEveryCallWithErrnoOne)
{
    Output_capture output;
    Test_handle empty;
    EXPECT_FALSE(empty);
    VQXSI_HANDLE h = reinterpret_cast<VQXSI_HANDLE>(static_cast<Scan_session*>(&empty));

    auto expect_errno_1 = [](const char* what, bool failed) {
        SCOPED_TRACE(what);
        EXPECT_TRUE(failed);
        EXPECT_EQ(1, errno);
        errno = 0;
    };
    errno = 0;
    expect_errno_1("GetNewScan", VQXSI_GetNewScan(h) == nullptr);
    expect_errno_1("GetSingleFrame", VQXSI_GetSingleFrame(h) == nullptr);
    expect_errno_1("StartScanning", VQXSI_StartScanning(h) == 0);
    expect_errno_1("StopScanning", VQXSI_StopScanning(h) == 0);
    int dummy = 0;
    expect_errno_1("UnlockBuffer", VQXSI_UnlockBuffer(h, &dummy) == 0);
    expect_errno_1("SetExposureMode", VQXSI_SetExposureMode(h, 0) == 0);
    VQX_SCANNER_LIGHTING lights{28, 1, 1, 1, 1, 1, 1};
    expect_errno_1("SetLights", VQXSI_SetLights(h, &lights) == 0);
    expect_errno_1("GetLights", VQXSI_GetLights(h, &lights) == 0);
    EXPECT_EQ(1u, lights.scanning_mode);  // untouched
    uint32_t ms = 77;
    expect_errno_1("SetSleepTimeout", VQXSI_SetSleepTimeout(h, 5) == 0);
    expect_errno_1("GetSleepTimeout", VQXSI_GetSleepTimeout(h, &ms) == 0);
    EXPECT_EQ(77u, ms);

    // The tag functions report 1 for any session; values read back as 0.
    uint32_t pairs[] = {ES_TARGET_VALUE, 5};
    EXPECT_EQ(1, VQXSI_SetExposureSettings(h, pairs, sizeof pairs));
    EXPECT_EQ(1, VQXSI_GetExposureSettings(h, pairs, sizeof pairs));
    EXPECT_EQ(0u, pairs[1]);

    // Properties of an uninitialised session read as zeros.
    VQX_SCANENGINE_PROPERTIES_EX properties;
    std::memset(&properties, 0x5A, sizeof properties);
    EXPECT_EQ(1, VQXSI_GetScanEnginePropertiesEx(h, &properties, sizeof properties));
    const VQX_SCANENGINE_PROPERTIES_EX zero{};
    EXPECT_EQ(0, std::memcmp(&zero, &properties, sizeof zero));

    EXPECT_GE(output.count("Attempt to use an uninitialzed session"), 12u);
    EXPECT_GE(output.count("Session_lock::Session_lock failed jni/../scan_session:16"), 10u);

    // Closing an uninitialised handle destroys only the handle.
    VQXSI_CloseSessionWithScanEngine(reinterpret_cast<VQXSI_HANDLE>(static_cast<Scan_session*>(new Test_handle)));
}

TEST(SessionHandle, NullHandlesAreEinval)
{
    static VQX_SCANNER_LIGHTING lights{28, 0, 0, 0, 0, 0, 0};
    static uint32_t pairs[2] = {ES_TARGET_VALUE, 0};
    static VQX_SCANENGINE_PROPERTIES_EX properties;
    const std::vector<std::pair<const char*, bool (*)()>> calls = {
        {"GetNewScan", [] { return VQXSI_GetNewScan(nullptr) == nullptr; }},
        {"GetSingleFrame", [] { return VQXSI_GetSingleFrame(nullptr) == nullptr; }},
        {"StartScanning", [] { return VQXSI_StartScanning(nullptr) == 0; }},
        {"StopScanning", [] { return VQXSI_StopScanning(nullptr) == 0; }},
        {"UnlockBuffer", [] { return VQXSI_UnlockBuffer(nullptr, nullptr) == 0; }},
        {"SetExposureMode", [] { return VQXSI_SetExposureMode(nullptr, 2) == 0; }},
        {"SetLights", [] { return VQXSI_SetLights(nullptr, &lights) == 0; }},
        {"GetLights", [] { return VQXSI_GetLights(nullptr, &lights) == 0; }},
        {"SetExposureSettings", [] { return VQXSI_SetExposureSettings(nullptr, pairs, sizeof pairs) == 0; }},
        {"GetExposureSettings", [] { return VQXSI_GetExposureSettings(nullptr, pairs, sizeof pairs) == 0; }},
        {"GetScanEngineProperties",
         [] { return VQXSI_GetScanEnginePropertiesEx(nullptr, &properties, sizeof properties) == 0; }},
        {"GetSleepTimeout", [] { return VQXSI_GetSleepTimeout(nullptr, nullptr) == 0; }},
        {"GetScanDriverRevision", [] { return VQXSI_GetScanDriverRevision(nullptr, nullptr) == 0; }},
    };
    for (const auto& call : calls) {
        SCOPED_TRACE(call.first);
        errno = 0;
        EXPECT_TRUE(call.second());
        EXPECT_EQ(EINVAL, errno);
    }
    VQXSI_CloseSessionWithScanEngine(nullptr);

    // Revision queries ignore the handle.
    char revision[8];
    EXPECT_EQ(1, VQXSI_GetScanDriverRevision(nullptr, revision));
    EXPECT_STREQ("2.138", revision);
    EXPECT_STREQ("Revision: 2.138", VQXSI_RevisionString());
}

} // namespace
