#include <gtest/gtest.h>
#include <unistd.h>

#include <QTemporaryDir>
#include <cerrno>

#include "shell/InstanceLock.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

TEST(InstanceLock, OneHolderAtATimeAndNoneWhereNoFileCanBe) {
    QTemporaryDir dir;
    const InstanceLock nowhere(dir.filePath("missing/folder/corviagent.lock"));
    EXPECT_FALSE(nowhere.acquired() || nowhere.heldElsewhere()) << "no file is no sign of another agent";
    EXPECT_EQ(nowhere.error(), ENOENT);
    const QString path = dir.filePath("corviagent.lock");
    {
        InstanceLock first(path);
        ASSERT_TRUE(first.acquired());
        InstanceLock second(path);
        EXPECT_TRUE(second.heldElsewhere());
        EXPECT_EQ(second.holderPid(), static_cast<long>(::getpid()));
        const test::ReadOnly readOnly(path);
        EXPECT_TRUE(InstanceLock(path).heldElsewhere()) << "a lock file that cannot be written still locks";
    }
    EXPECT_TRUE(InstanceLock(path).acquired()) << "not released with its holder";
}

}  // namespace
}  // namespace corvi
