// The stress test program: runs the stress load once (see stress_load.h).
//
//   test_stress [--engine=TYPE] [--seconds=N] [--seed=N] [--threads=N]
//               [--sessions=N] [--capture-mode=N] [--quiet-ms=N] [--faults=a,b,...]
//               [GoogleTest options]
//
// The same settings come from VQX_STRESS_SECONDS, VQX_STRESS_SEED, ... (the
// command line wins). A failure prints the seed, so a run can be repeated.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "stress_load.h"

namespace {

stress::Options options;

TEST(Stress, RandomCallsWithFaults)
{
    const stress::Result result = stress::run(options);
    std::printf("stress: %s\n", result.summary.c_str());
    EXPECT_TRUE(result.passed) << result.failure << "\n(" << result.summary << ")";
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    std::string error;
    if (!options.parse(argc, argv, &error)) {
        std::fprintf(stderr, "test_stress: %s\n%s", error.c_str(), stress::Options::usage());
        return 2;
    }
    return RUN_ALL_TESTS();
}
