#include "datapath/common/infra/DynamicTweaks.h"

#include "datapath/common/infra/Singleton.h"
#include "datapath/common/infra/Tweaks.h"

#include <string_view>

namespace
{

constinit platform::Atomic<DynamicTweaks*> theDynamicTweaks = nullptr;

bool flag(std::string_view name) { return Tweaks::instance().longVal(name, 0) != 0; }

} // namespace

DynamicTweaks& DynamicTweaks::instance()
{
    return createOnce(theDynamicTweaks, creationLock<DynamicTweaks>(), [] { return new DynamicTweaks; });
}

void DynamicTweaks::refresh()
{
    const MutexGuard guard(m_refreshMutex); // each reads what the one before read, or something newer
    readMembers();
}

void DynamicTweaks::readMembers()
{
    t_ActiveObjectVerboseLogs = flag("t_ActiveObjectVerboseLogs");
    t_BatchIOVerboseLogs = flag("t_BatchIOVerboseLogs");
    t_CloudVerboseLogs = flag("t_CloudVerboseLogs");
    t_deadlockCheckerIntervalSec = Tweaks::instance().intVal("t_deadlockCheckerIntervalSec", 60);
    t_defaultDlcTimeoutSec = Tweaks::instance().uintVal("t_defaultDlcTimeoutSec", 900);
    t_disableLogMemoryAllocationTracking = flag("t_disableLogMemoryAllocationTracking");
    t_httpCurlVerbose = Tweaks::instance().boolVal("t_httpCurlVerbose", false);
    t_IOVerboseLogs = flag("t_IOVerboseLogs");
    t_KrnBackupVerboseLogs = flag("t_KrnBackupVerboseLogs");
    t_KrnPorterVerboseLogs = flag("t_KrnPorterVerboseLogs");
    t_KrnRestoreVerboseLogs = flag("t_KrnRestoreVerboseLogs");
    t_StreamReaderVerboseLogs = flag("t_StreamReaderVerboseLogs");

    krnBackupOrRestoreVerbose = t_KrnBackupVerboseLogs || t_KrnRestoreVerboseLogs;
    curlOrIoVerbose = t_httpCurlVerbose || t_IOVerboseLogs;
    streamReaderOrIoVerbose = t_IOVerboseLogs || t_StreamReaderVerboseLogs;
    krnPorterOrIoVerbose = t_IOVerboseLogs || t_KrnPorterVerboseLogs;
    batchIoOrCloudOrIoVerbose = t_BatchIOVerboseLogs || t_IOVerboseLogs || t_CloudVerboseLogs;
}
