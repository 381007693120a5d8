// The leaf modules under the trace: its own mutexes and the file owners shared with
// the agent.
#include <fcntl.h>
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
    {
        TrMutexLock lock(mutex);
        EXPECT_TRUE(trMutexHeldBySelf(mutex));
    }
    EXPECT_FALSE(trMutexHeldBySelf(mutex));
    psSetMultiThreaded(0);  // locking is skipped, so nothing is owned
    EXPECT_EQ(0, trMutexAcquire(mutex) + trMutexAcquire(mutex));
    EXPECT_FALSE(trMutexHeldBySelf(mutex));
    psSetMultiThreaded(1);
    trMutexDestroy(&mutex);
}

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

    TempFile temp(dir.file("fixed"), false, TempFile::FixedName());
    ASSERT_NE(nullptr, temp.get());
    fputs("new\n", temp.get());
    ASSERT_EQ(0, temp.commit(target));
    EXPECT_EQ(0, temp.discard());  // a committed file is not removed again
    EXPECT_EQ("new\n", readFile(target));
    EXPECT_FALSE(fileExists(dir.file("fixed")));
    struct stat st;
    ASSERT_EQ(0, stat(target.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);

    TempFile nowhere(dir.file("missing/dir"), false);
    EXPECT_EQ(nullptr, nowhere.get());
    EXPECT_EQ(ENOENT, nowhere.error());
}

TEST(OwnedFileTest, AppendFileRollsBackToItsSizeAtOpening) {
    testfiles::TempDir dir;
    const std::string path = dir.file("save");
    writeFile(path, "kept\n");
    AppendFile save;
    EXPECT_TRUE(save.rollBack());  // nothing open
    EXPECT_EQ(-1, save.close());
    ASSERT_EQ(0, save.open(path, "ae"));
    ASSERT_TRUE(save.put("added\n", 6));
    EXPECT_TRUE(save.put("", 0));
    EXPECT_TRUE(save.rollBack());
    ASSERT_TRUE(save.put("again\n", 6));
    EXPECT_EQ(11, save.close());
    EXPECT_EQ("kept\nagain\n", readFile(path));
    EXPECT_EQ(ENOENT, save.open(dir.file("no/such"), "ae"));
    EXPECT_FALSE(save.isOpen());
}

TEST(OwnedFileTest, OwnersCloseWhatTheyHoldOnce) {
    testfiles::TempDir dir;
    const std::string path = dir.file("fd");
    ScopedFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_TRUE(fd.isOpen());
    EXPECT_TRUE(fd.writeAll(std::string(100000, 'x')));
    ScopedFd moved(std::move(fd));
    EXPECT_FALSE(fd.isOpen());
    EXPECT_EQ(0, moved.close());
    EXPECT_EQ(0, moved.close());
    EXPECT_EQ(100000u, readFile(path).size());

    ScopedFile stream(fopen(path.c_str(), "re"));
    ASSERT_NE(nullptr, stream.get());
    LineReader reader(stream.get());
    ASSERT_TRUE(reader.next());
    EXPECT_EQ(100000u, reader.size());
    EXPECT_FALSE(reader.next());
    EXPECT_FALSE(reader.failed());
    FILE* kept = stream.release();
    EXPECT_EQ(nullptr, stream.get());
    fclose(kept);
}

}  // namespace
