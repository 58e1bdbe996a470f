// The dialog for targets whose program files carry no compiled resources.

#include "Agent/CheckpointGui/ResourceIds.h"
#include "platform/posix/Resources.h"

platform::ModuleResources platform::posix::programResources = {
    .dialog = {.id = IDD_CHECKPOINT, .title = TEXT_TITLE, .prompt = TEXT_PROMPT, .editControl = IDC_CHECKPOINT_NAME}};
