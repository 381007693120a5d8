// Out of memory while the run sets itself up ends the run with status 1. This test
// program replaces operator new so that one allocation of a chosen size fails.
#include <cstdlib>
#include <new>

#include "Common/CmdArgs.h"
#include "Common/LogManager.h"
#include "PathPlanner/RunPathPlanner.h"
#include "gtest/gtest.h"

namespace {
size_t gFailingSize = 0;
}

void* operator new(size_t size) {
    if (gFailingSize != 0 && size == gFailingSize) {
        gFailingSize = 0;
        throw std::bad_alloc();
    }
    if (void* block = malloc(size ? size : 1)) return block;
    throw std::bad_alloc();
}
// g++ pairs the free() below with the library's operator new, not with the replacement
// above that really made the block, and warns of a mismatch that cannot happen.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* block) noexcept { free(block); }
void operator delete(void* block, size_t) noexcept { free(block); }
#pragma GCC diagnostic pop

namespace {

TEST(RunPathPlannerTest, OutOfMemoryForCommandLineOrActivityLogExits1) {
    const char* argv[] = {"PathPlanner", "-multipath", "3;mpatha"};
    for (size_t size : {sizeof(CmdArgs), sizeof(LogManager)}) {
        EXPECT_EXIT(
            {
                gFailingSize = size;
                exit(runPathPlanner(3, argv));
            },
            ::testing::ExitedWithCode(1), "")
            << "allocation of " << size << " bytes";
    }
}

}  // namespace
