#include <gtest/gtest.h>
#include <unistd.h>

#include <QTemporaryDir>

#include "shell/InstanceLock.h"

namespace corvi {
namespace {

TEST(InstanceLock, OneHolderAtATimeAndNoneWhereNoFileCanBe) {
    QTemporaryDir dir;
    EXPECT_FALSE(InstanceLock(dir.filePath("missing/folder/corviagent.lock")).acquired());
    const QString path = dir.filePath("corviagent.lock");
    {
        InstanceLock first(path);
        ASSERT_TRUE(first.acquired());
        InstanceLock second(path);
        EXPECT_FALSE(second.acquired());
        EXPECT_EQ(second.holderPid(), static_cast<long>(::getpid()));
    }
    EXPECT_TRUE(InstanceLock(path).acquired()) << "not released with its holder";
}

}  // namespace
}  // namespace corvi
