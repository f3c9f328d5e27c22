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

// Below the C interface (which refuses any handle that is not an open
// session before it gets here), an uninitialised session reports itself and
// sets errno 1, except that the tag and property functions answer 1 (values
// and properties read as 0).
TEST(SessionHandle, UninitialisedSessionReportsItself)
{
    Output_capture output;
    Test_handle empty;
    EXPECT_FALSE(empty);
    VQX_SCANNER_LIGHTING lights{28, 1, 1, 1, 1, 1, 1};
    uint32_t pairs[2] = {ES_TARGET_VALUE, 5};
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
