// The leaf modules under the trace and the logs: the trace's own mutexes and the
// temporary file that replaces a log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <thread>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/ownedfile.h"
#include "BKVlib/common/ut/trlock.h"
#include "tests/support/TestFiles.h"

using testfiles::fileExists;
using testfiles::readFile;
using testfiles::writeFile;

namespace {

// Ownership is what the trace's re-entrant holds rely on: it must name the holding
// thread only, and a second acquire by the holder must fail rather than hang.
TEST(TraceMutexTest, OwnershipIsPerThreadAndRelockIsRefused) {
    psSetMultiThreaded(1);
    TrMutexHandle mutex = nullptr;
    ASSERT_EQ(0, trMutexCreate(&mutex));
    ASSERT_EQ(0, trMutexAcquire(mutex));
    EXPECT_TRUE(trMutexHeldBySelf(mutex));
    bool heldElsewhere = true;
    std::thread([&] { heldElsewhere = trMutexHeldBySelf(mutex); }).join();
    EXPECT_FALSE(heldElsewhere);
    EXPECT_EQ(EDEADLK, trMutexAcquire(mutex));
    EXPECT_EQ(0, trMutexRelease(mutex));
    EXPECT_FALSE(trMutexHeldBySelf(mutex));
    psSetMultiThreaded(0);  // locking is skipped, so nothing is owned
    EXPECT_EQ(0, trMutexAcquire(mutex) + trMutexAcquire(mutex));
    EXPECT_FALSE(trMutexHeldBySelf(mutex));
    psSetMultiThreaded(1);
    trMutexDestroy(&mutex);
}

// Conversions and the pruner replace a log through this commit; what a reader of the
// log sees is the old file or the whole new one, with the old file's permissions.
TEST(OwnedFileTest, TempFileReplacesItsTargetOnlyWhenCommitted) {
    testfiles::TempDir dir;
    const std::string target = dir.file("log");
    writeFile(target, "old\n");
    ASSERT_EQ(0, chmod(target.c_str(), 0640));
    std::string dropped;
    {
        TempFile temp(dir.path(), false);
        ASSERT_NE(nullptr, temp.get());
        dropped = temp.path();
        fputs("never\n", temp.get());
    }
    EXPECT_FALSE(fileExists(dropped));
    EXPECT_EQ("old\n", readFile(target));

    TempFile temp(dir.path(), false);
    ASSERT_NE(nullptr, temp.get());
    fputs("new\n", temp.get());
    ASSERT_EQ(0, temp.commit(target));
    EXPECT_EQ("new\n", readFile(target));
    struct stat st;
    ASSERT_EQ(0, stat(target.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);
}

}  // namespace
