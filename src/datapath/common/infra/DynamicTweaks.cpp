#include "datapath/common/infra/DynamicTweaks.h"

#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/base/Singleton.h"

namespace
{

constinit platform::Atomic<DynamicTweaks*> theDynamicTweaks = nullptr;

} // namespace

DynamicTweaks& DynamicTweaks::instance()
{
    return createOnce(theDynamicTweaks, creationLock<DynamicTweaks>, [] { return new DynamicTweaks; });
}

void refreshDynamicTweaks() { DynamicTweaks::instance().refresh(); }

void DynamicTweaks::refresh()
{
    const MutexGuard guard(m_refreshMutex); // so that a refresh never overwrites what a later one has read
    readMembers();
}

void DynamicTweaks::readMembers()
{
    const Tweaks& tweaks = Tweaks::instance();
    t_ActiveObjectVerboseLogs = tweaks.value(ACTIVE_OBJECT_VERBOSE_LOGS);
    t_BatchIOVerboseLogs = tweaks.value(BATCH_IO_VERBOSE_LOGS);
    t_CloudVerboseLogs = tweaks.value(CLOUD_VERBOSE_LOGS);
    t_deadlockCheckerIntervalSec = tweaks.value(DEADLOCK_CHECKER_INTERVAL_SEC);
    t_defaultDlcTimeoutSec = tweaks.value(DEFAULT_DLC_TIMEOUT_SEC);
    t_disableLogMemoryAllocationTracking = tweaks.value(DISABLE_LOG_MEMORY_ALLOCATION_TRACKING);
    t_httpCurlVerbose = tweaks.value(HTTP_CURL_VERBOSE);
    t_IOVerboseLogs = tweaks.value(IO_VERBOSE_LOGS);
    t_KrnBackupVerboseLogs = tweaks.value(KRN_BACKUP_VERBOSE_LOGS);
    t_KrnPorterVerboseLogs = tweaks.value(KRN_PORTER_VERBOSE_LOGS);
    t_KrnRestoreVerboseLogs = tweaks.value(KRN_RESTORE_VERBOSE_LOGS);
    t_StreamReaderVerboseLogs = tweaks.value(STREAM_READER_VERBOSE_LOGS);

    krnBackupOrRestoreVerbose = t_KrnBackupVerboseLogs || t_KrnRestoreVerboseLogs;
    curlOrIoVerbose = t_httpCurlVerbose || t_IOVerboseLogs;
    streamReaderOrIoVerbose = t_IOVerboseLogs || t_StreamReaderVerboseLogs;
    krnPorterOrIoVerbose = t_IOVerboseLogs || t_KrnPorterVerboseLogs;
    batchIoOrCloudOrIoVerbose = t_BatchIOVerboseLogs || t_IOVerboseLogs || t_CloudVerboseLogs;
}
