// Session handles: sharing and releasing bodies, what every exported
// function does with an uninitialised session, and the registry that checks
// handles while sessions open and close in other threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include <VQXScanInterface.h>

#include "Exposure_tags.h"
#include "Scan_session_body.h"
#include "Session_registry.h"
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

// Every exported call refuses a handle that is not an open session (NULL, an
// uninitialised session object, any other address) with EINVAL and touches
// nothing; only the NULL forms of the sleep time-out and the revision query
// (which ignores the handle) succeed. Below the C interface, an
// uninitialised session reports itself and sets errno 1, except that the
// tag and property functions answer 1 (values and properties read as 0).
TEST(SessionHandle, NullAndUninitialisedHandles)
{
    Output_capture output;
    Test_handle empty;
    EXPECT_FALSE(empty);
    static VQX_SCANNER_LIGHTING lights;
    static uint32_t pairs[2], ms;
    static VQX_SCANENGINE_PROPERTIES_EX properties;
    static int dummy;
    enum { FAILS, NULL_SUCCEEDS };
    const struct { const char* name; int null_handle; bool (*failed)(VQXSI_HANDLE); } calls[] = {
        {"GetNewScan", FAILS, [](VQXSI_HANDLE h) { return VQXSI_GetNewScan(h) == nullptr; }},
        {"GetSingleFrame", FAILS, [](VQXSI_HANDLE h) { return VQXSI_GetSingleFrame(h) == nullptr; }},
        {"StartScanning", FAILS, [](VQXSI_HANDLE h) { return VQXSI_StartScanning(h) == 0; }},
        {"StopScanning", FAILS, [](VQXSI_HANDLE h) { return VQXSI_StopScanning(h) == 0; }},
        {"UnlockBuffer", FAILS, [](VQXSI_HANDLE h) { return VQXSI_UnlockBuffer(h, &dummy) == 0; }},
        {"SetExposureMode", FAILS, [](VQXSI_HANDLE h) { return VQXSI_SetExposureMode(h, 2) == 0; }},
        {"SetLights", FAILS, [](VQXSI_HANDLE h) { return VQXSI_SetLights(h, &lights) == 0; }},
        {"GetLights", FAILS, [](VQXSI_HANDLE h) { return VQXSI_GetLights(h, &lights) == 0; }},
        {"SetSleepTimeout", NULL_SUCCEEDS, [](VQXSI_HANDLE h) { return VQXSI_SetSleepTimeout(h, 5) == 0; }},
        {"GetSleepTimeout", NULL_SUCCEEDS, [](VQXSI_HANDLE h) { return VQXSI_GetSleepTimeout(h, &ms) == 0; }},
        {"SetExposureSettings", FAILS,
         [](VQXSI_HANDLE h) { return VQXSI_SetExposureSettings(h, pairs, sizeof pairs) == 0; }},
        {"GetExposureSettings", FAILS,
         [](VQXSI_HANDLE h) { return VQXSI_GetExposureSettings(h, pairs, sizeof pairs) == 0; }},
        {"GetScanEngineProperties", FAILS,
         [](VQXSI_HANDLE h) { return VQXSI_GetScanEnginePropertiesEx(h, &properties, sizeof properties) == 0; }},
    };
    const VQXSI_HANDLE uninitialised = reinterpret_cast<VQXSI_HANDLE>(static_cast<Scan_session*>(&empty));
    const VQXSI_HANDLE garbage = reinterpret_cast<VQXSI_HANDLE>(&dummy);
    lights = {28, 1, 1, 1, 1, 1, 1};
    ms = 77;
    pairs[0] = ES_TARGET_VALUE;
    pairs[1] = 5;
    std::memset(&properties, 0x5A, sizeof properties);
    const VQX_SCANENGINE_PROPERTIES_EX untouched = properties;
    for (const auto& call : calls) {
        SCOPED_TRACE(call.name);
        for (VQXSI_HANDLE h : {uninitialised, garbage}) {
            errno = 0;
            EXPECT_TRUE(call.failed(h));
            EXPECT_EQ(EINVAL, errno);
        }
        errno = 0;
        EXPECT_EQ(call.null_handle == FAILS, call.failed(nullptr));
        EXPECT_EQ(call.null_handle == FAILS ? EINVAL : 0, errno);
        ms = 77;
    }
    EXPECT_EQ(1u, lights.scanning_mode);  // untouched
    EXPECT_EQ(5u, pairs[1]);
    EXPECT_EQ(0, std::memcmp(&untouched, &properties, sizeof properties));
    EXPECT_EQ(0u, output.count("Attempt to use an uninitialzed session"));  // never dereferenced

    // Closing a handle that is no open session changes nothing.
    errno = 0;
    VQXSI_CloseSessionWithScanEngine(uninitialised);
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    VQXSI_CloseSessionWithScanEngine(nullptr);
    EXPECT_EQ(0, errno);
    char revision[8];
    EXPECT_EQ(1, VQXSI_GetScanDriverRevision(nullptr, revision));
    EXPECT_STREQ("2.138", revision);
    EXPECT_STREQ("Revision: 2.138", VQXSI_RevisionString());

    // The session layer itself: an uninitialised session says so.
    errno = 0;
    EXPECT_EQ(nullptr, empty.Get_new_frame());
    EXPECT_EQ(1, errno);
    EXPECT_FALSE(empty.Start_scanning(false));
    EXPECT_FALSE(empty.Set_lights(lights));
    EXPECT_EQ(1u, ExposureSetTags(&empty, pairs, sizeof pairs));
    EXPECT_EQ(1u, ExposureGetTags(&empty, pairs, sizeof pairs));
    EXPECT_EQ(0u, pairs[1]);
    const VQX_SCANENGINE_PROPERTIES_EX zero{};
    EXPECT_EQ(0, std::memcmp(&zero, empty.Get_properties(), sizeof zero));
    EXPECT_GE(output.count("Attempt to use an uninitialzed session"), 4u);
    EXPECT_GE(output.count("Session_lock::Session_lock failed jni/../scan_session:16"), 3u);
}

// Sessions open and close (reusing slots, more than one block of them) while
// other threads look their handles up: a lookup yields the session of its
// handle or nothing, never another one, and a close returns only once no
// lookup holds the session. The registry never dereferences a session, so
// plain addresses stand in for them.
TEST(SessionRegistry, LookupsRaceOpensAndClosesWithoutMixingSessions)
{
    Session_registry& registry = Session_registry::instance();
    static char place[40];
    auto at = [](int i) { return reinterpret_cast<Scan_session*>(&place[i]); };
    const size_t open_before = registry.size();
    for (int i = 20; i < 40; ++i)  // a second block, kept open throughout
        registry.add(at(i));
    std::atomic<int> in_use[20] = {};
    std::atomic<bool> done{false}, wrong{false};
    std::vector<std::thread> callers;
    for (int t = 0; t < 2; ++t) {
        callers.emplace_back([&, t] {
            for (unsigned n = 0; !done; ++n) {
                const int i = static_cast<int>((n * 7 + t) % 20);
                Session_use use(at(i));
                if (use && use.get() != at(i))
                    wrong = true;
                if (use) {
                    in_use[i].fetch_add(1);
                    in_use[i].fetch_sub(1);
                }
                Session_use kept(at(20 + i));
                if (!kept)
                    wrong = true;
            }
        });
    }
    for (int round = 0; round < 2000; ++round) {
        const int i = round % 20;
        registry.add(at(i));
        EXPECT_EQ(at(i), registry.remove(at(i)));
        EXPECT_EQ(0, in_use[i].load()) << "closed while in use";
        EXPECT_EQ(nullptr, registry.remove(at(i)));
    }
    done = true;
    for (std::thread& c : callers)
        c.join();
    EXPECT_FALSE(wrong);
    for (int i = 20; i < 40; ++i)
        EXPECT_EQ(at(i), registry.remove(at(i)));
    EXPECT_EQ(open_before, registry.size());
    EXPECT_FALSE(Session_use(nullptr));
}

} // namespace
