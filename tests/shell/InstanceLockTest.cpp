#include <gtest/gtest.h>
#include <unistd.h>

#include <QTemporaryDir>

#include "shell/InstanceLock.h"

namespace corvi {
namespace {

TEST(InstanceLock, SecondHolderIsRefusedAndLearnsTheFirstPid) {
    QTemporaryDir dir;
    const QString path = dir.filePath("corviagent.lock");
    {
        InstanceLock first(path);
        ASSERT_TRUE(first.acquired());
        InstanceLock second(path);
        EXPECT_FALSE(second.acquired());
        EXPECT_EQ(second.holderPid(), static_cast<long>(::getpid()));
    }
    // Released with its holder: the next start gets it.
    InstanceLock again(path);
    EXPECT_TRUE(again.acquired());
}

TEST(InstanceLock, UnwritableLocationIsNotAcquired) {
    QTemporaryDir dir;
    InstanceLock lock(dir.filePath("missing/folder/corviagent.lock"));
    EXPECT_FALSE(lock.acquired());
}

}  // namespace
}  // namespace corvi
