// The facade's CPU core table: lowest free core first, core 0 shared once all are taken.
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

TEST(CoreTable, HandsOutTheLowestFreeCoreAndSharesCoreZeroWhenExhausted) {
    PCIeDataManager manager;
    const unsigned cores = static_cast<unsigned>(std::max(1, QThread::idealThreadCount()));
    for (unsigned core = 0; core < cores; ++core) {
        EXPECT_EQ(manager.GetIdealCpuCoreIndex(), core);
    }
    EXPECT_EQ(manager.GetIdealCpuCoreIndex(), 0u);
    EXPECT_EQ(manager.GetIdealCpuCoreIndex(), 0u);
    // Cores outside the table are never handed out.
    manager.ResetUsedCpuCoreIndex(cores + 3);
    manager.ResetUsedCpuCoreIndex(0xFFFFFFFFu);
    EXPECT_EQ(manager.GetIdealCpuCoreIndex(), 0u);
    // Returned cores are taken again, the lowest first.
    manager.ResetUsedCpuCoreIndex(cores - 1);
    manager.ResetUsedCpuCoreIndex(0);
    EXPECT_EQ(manager.GetIdealCpuCoreIndex(), 0u);
    EXPECT_EQ(manager.GetIdealCpuCoreIndex(), cores - 1);
    EXPECT_EQ(manager.GetIdealCpuCoreIndex(), 0u);
}

}  // namespace
