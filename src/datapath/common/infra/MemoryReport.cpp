#include "datapath/common/infra/MemoryReport.h"

#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/MemoryHeap.h"
#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/windows/MemWatcher.h"

void MemoryReport::printOthers()
{
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    MemoryPoolImpl::instance().printMemoryUsage();
    MemoryHeap::instance().printMemoryUsage();
    MemWatcher::printMem();
    MemWatcher::instance().printCpu();
}
