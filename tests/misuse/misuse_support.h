// Support for the misuse suite: the exported functions called the wrong way
// on the simulated engine, behind a Fault_hwl so that a test can stall the
// stream, fail the engine's start or hold back stop confirmations.
//
// The program links the static driver core, so that a test can look at the
// driver's records (buffer census, counts, power) after each misuse. One
// simulator and one Fault_hwl serve the whole program (the driver keeps the
// hardware layer it started with); both live until the process exits, and
// the simulator's frame thread is stopped once every test has run.
#ifndef VQX_TESTS_MISUSE_SUPPORT_H
#define VQX_TESTS_MISUSE_SUPPORT_H

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include <VQXScanInterface.h>

#include "Driver_invariants.h"
#include "Fault_hwl.h"
#include "Simulator.h"

namespace misuse {

vqxsim::Simulator& sim();
robust::Fault_hwl& hwl();

/// Polls @p pred every 2 ms until it holds or @p ms pass; its last value.
template <class Pred>
bool wait_until(Pred pred, unsigned ms = 3000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Milliseconds since @p start.
inline long elapsed_ms(std::chrono::steady_clock::time_point start)
{
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::steady_clock::now() - start)
                    .count());
}

/// Number of client threads waiting inside the hand-off.
unsigned threads_waiting();

/// Clears errno to a marker value that no function sets.
inline void mark_errno() { errno = 12345; }

/// Every test starts with the faults off (stops confirmed 5 ms late, as the
/// real transfer hardware does) and ends with every session closed; then no
/// buffer may be left out, the engine must be off and the counts zero.
class Misuse_test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

/// A session closed at scope exit (unless closed or released before).
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

/// Starts scanning and waits for the first frame, which is returned (held).
/// In capture modes 0 and 5 the stream then waits until the client gives a
/// frame back: a client that keeps its only frame sees the stream stall.
void* first_frame(VQXSI_HANDLE h);

/// Starts scanning, takes the first frame and gives it back; true when a
/// frame came.
bool frames_flow(VQXSI_HANDLE h);

} // namespace misuse

#endif
