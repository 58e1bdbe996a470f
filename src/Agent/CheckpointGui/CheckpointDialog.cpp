#include "Agent/CheckpointGui/CheckpointDialog.h"

#include "Agent/CheckpointGui/AgentLauncher.h"
#include "Agent/CheckpointGui/ResourceIds.h"
#include "datapath/common/infra/LogItem.h"

namespace
{

constexpr std::intptr_t HANDLED = 1;
constexpr std::intptr_t NOT_HANDLED = 0;
constexpr std::intptr_t DIALOG_RESULT = 1; // for OK and Cancel alike

constexpr std::uint16_t lowWord(std::uintptr_t value) { return static_cast<std::uint16_t>(value); }

constexpr std::uint16_t highWord(std::uintptr_t value) { return static_cast<std::uint16_t>(value >> 16U); }

} // namespace

std::u16string getCheckpointName(platform::DialogHandle dialog)
{
    const std::size_t length = lowWord(static_cast<std::uintptr_t>(
        platform::sendItemMessage(dialog, IDC_CHECKPOINT_NAME, platform::MESSAGE_EDIT_LINE_LENGTH, 0, 0)));
    // The edit control takes the size of the buffer from its first unit and appends no zero.
    std::u16string name(length + 1, u'\0');
    name[0] = static_cast<char16_t>(length);
    platform::sendItemMessage(dialog, IDC_CHECKPOINT_NAME, platform::MESSAGE_EDIT_GET_LINE, 0,
                              reinterpret_cast<std::intptr_t>(name.data()));
    name[length] = u'\0';
    name.resize(name.find(u'\0'));
    return name;
}

std::intptr_t Checkpoint(platform::DialogHandle dialog, std::uint32_t message, std::uintptr_t wParam,
                         std::intptr_t /*lParam*/)
{
    if (message == platform::MESSAGE_INIT_DIALOG)
    {
        return HANDLED; // the focus goes to the first tab stop
    }
    if (message != platform::MESSAGE_COMMAND)
    {
        return NOT_HANDLED;
    }
    const int control = lowWord(wParam);
    if (highWord(wParam) == platform::NOTIFICATION_EDIT_CHANGED && control == IDC_CHECKPOINT_NAME)
    {
        const bool hasName = !getCheckpointName(dialog).empty();
        platform::enableControl(platform::dialogItem(dialog, platform::CONTROL_OK), hasName);
    }
    if (control == platform::CONTROL_OK)
    {
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "IDOK" << std::endl;
        runAgent(getCheckpointName(dialog));
        platform::endDialog(dialog, DIALOG_RESULT);
        return HANDLED;
    }
    if (control == platform::CONTROL_CANCEL)
    {
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "IDCANCEL" << std::endl;
        platform::endDialog(dialog, DIALOG_RESULT);
        return HANDLED;
    }
    return NOT_HANDLED;
}
