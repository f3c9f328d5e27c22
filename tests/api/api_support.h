// Support for the end-to-end tests of the C interface: one simulated engine
// per test program, installed as the hardware layer before the first open
// and kept for the life of the process (the driver keeps its hardware layer
// until unload, so the simulator is never destroyed; its frame thread is
// stopped when the tests end).
#ifndef VQX_TESTS_API_SUPPORT_H
#define VQX_TESTS_API_SUPPORT_H

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <VQXScanInterface.h>

#include "Simulator.h"

namespace api_test {

/// The simulator the driver runs on (built on first use).
vqxsim::Simulator& sim();

/// Polls @p pred every 2 ms until it holds or @p ms pass; its last value.
template <class Pred>
bool wait_until(Pred pred, unsigned ms = 1000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Buffers the simulator has handed to the driver and not had back.
unsigned buffers_out();

/// Every test opens and closes its own sessions; afterwards no buffer may be
/// left with the driver or the client.
class Api_test : public testing::Test {
protected:
    void SetUp() override { sim(); }
    void TearDown() override
    {
        EXPECT_TRUE(wait_until([] { return buffers_out() == 0; }, 1000))
            << buffers_out() << " buffers not given back";
    }
};

/// A session closed at scope exit.
class Session {
public:
    Session() : h(VQXSI_OpenSessionWithScanEngine()) {}
    ~Session() { close(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    void close()
    {
        VQXSI_CloseSessionWithScanEngine(h);
        h = nullptr;
    }
    operator VQXSI_HANDLE() const { return h; }

private:
    VQXSI_HANDLE h;
};

} // namespace api_test

#endif
