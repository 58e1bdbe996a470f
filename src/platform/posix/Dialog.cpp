#include "platform/Dialog.h"

#include "platform/Utf.h"

#include <iostream>
#include <optional>
#include <string>
#include <unistd.h>

namespace platform
{

struct DialogControl
{
    int id;
    bool isEnabled;
};

struct DialogBox
{
    DialogProcedure procedure;
    DialogControl edit;
    DialogControl ok{CONTROL_OK, false};
    DialogControl cancel{CONTROL_CANCEL, true};
    std::u16string text; // of the edit control
    std::optional<std::intptr_t> result;
};

} // namespace platform

namespace platform::posix
{

namespace
{

constexpr std::intptr_t FAILED = -1;

void sendCommand(DialogBox& dialog, std::uint16_t notification, DialogControl& control)
{
    const auto wParam = static_cast<std::uintptr_t>(notification) << 16U | static_cast<std::uint16_t>(control.id);
    dialog.procedure(&dialog, MESSAGE_COMMAND, wParam, reinterpret_cast<std::intptr_t>(&control));
}

/// The longest line that a terminal certainly passes on whole, in bytes; what goes beyond is dropped.
constexpr std::size_t TERMINAL_LINE_LIMIT = 4094;

/// One line is what the user types into the edit control, its end is the Return key.
std::intptr_t converse(DialogBox& dialog)
{
    dialog.procedure(&dialog, MESSAGE_INIT_DIALOG, 0, 0);
    std::string line;
    while (!dialog.result && std::getline(std::cin, line))
    {
        if (line.ends_with('\r'))
        {
            line.pop_back();
        }
        if (line.size() > TERMINAL_LINE_LIMIT && isatty(STDIN_FILENO) == 1)
        {
            std::cout << "The terminal passes on at most " << TERMINAL_LINE_LIMIT
                      << " bytes of a line. Type less, or pass the text through standard input: " << std::flush;
            continue;
        }
        dialog.text = utf8ToUtf16(line);
        sendCommand(dialog, NOTIFICATION_EDIT_CHANGED, dialog.edit);
        sendCommand(dialog, 0, dialog.ok.isEnabled ? dialog.ok : dialog.cancel);
    }
    if (!dialog.result)
    {
        sendCommand(dialog, 0, dialog.cancel);
    }
    return dialog.result.value_or(FAILED);
}

std::intptr_t runDialog(ModuleHandle module, int dialogId, DialogProcedure procedure)
{
    const auto* const resources = static_cast<const ModuleResources*>(module);
    if (resources == nullptr || resources->dialog.id != dialogId)
    {
        return FAILED;
    }
    if (isatty(STDIN_FILENO) == 1)
    {
        std::cout << resources->dialog.title << '\n' << resources->dialog.prompt << ": " << std::flush;
    }
    DialogBox dialog{.procedure = procedure, .edit = {resources->dialog.editControl, true}, .text = {}, .result = {}};
    return converse(dialog);
}

bool endDialog(DialogHandle dialog, std::intptr_t result)
{
    dialog->result = result;
    return true;
}

ControlHandle dialogItem(DialogHandle dialog, int controlId)
{
    for (DialogControl* const control : {&dialog->edit, &dialog->ok, &dialog->cancel})
    {
        if (control->id == controlId)
        {
            return control;
        }
    }
    return nullptr;
}

bool enableControl(ControlHandle control, bool enable)
{
    if (control == nullptr)
    {
        return false;
    }
    const bool wasDisabled = !control->isEnabled;
    control->isEnabled = enable;
    return wasDisabled;
}

std::intptr_t sendItemMessage(DialogHandle dialog, int controlId, std::uint32_t message, std::uintptr_t wParam,
                              std::intptr_t lParam)
{
    if (controlId != dialog->edit.id || wParam != 0)
    {
        return 0;
    }
    if (message == MESSAGE_EDIT_LINE_LENGTH)
    {
        return static_cast<std::intptr_t>(dialog->text.size());
    }
    if (message == MESSAGE_EDIT_GET_LINE)
    {
        // The buffer's first unit says how many it holds. No zero is added.
        auto* const buffer = reinterpret_cast<char16_t*>(lParam);
        return static_cast<std::intptr_t>(dialog->text.copy(buffer, *buffer));
    }
    return 0;
}

} // namespace

} // namespace platform::posix

platform::DialogCalls platform::dialogCalls = {
    .runDialog = posix::runDialog,
    .endDialog = posix::endDialog,
    .dialogItem = posix::dialogItem,
    .enableControl = posix::enableControl,
    .sendItemMessage = posix::sendItemMessage,
};
