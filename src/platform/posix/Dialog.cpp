#include "platform/Dialog.h"

#include "platform/Utf.h"
#include "platform/posix/Errors.h"

#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>

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
    std::u16string editText;
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

/// The longest line, in bytes, that every terminal passes on whole. The terminal drops what is beyond its own limit.
constexpr std::size_t TERMINAL_LINE_LIMIT = 4094;

constexpr char ESCAPE = '\x1B';
constexpr std::string_view HOW_TO_CANCEL = "To cancel: Return alone, Esc and Return, or Ctrl-D.";

bool isTerminal() { return isatty(STDIN_FILENO) == 1; }

/// Whether the unit is in C0, which has the tab and Esc, is DEL, or is in C1.
bool isControlCharacter(char16_t unit) { return unit < 0x20 || (unit >= 0x7F && unit < 0xA0); }

/// The reason why a line cannot become the text of the edit control; empty if it can.
std::string refusal(std::string_view line, std::u16string_view text)
{
    if (isTerminal() && line.size() > TERMINAL_LINE_LIMIT)
    {
        return "Refused: the terminal passes on at most " + std::to_string(TERMINAL_LINE_LIMIT) +
               " bytes of a line. Longer text goes through standard input.";
    }
    if (std::ranges::any_of(text, isControlCharacter))
    {
        return "Refused: the text has control characters, such as a tab or what an arrow key sends.";
    }
    return {};
}

/// The text of the next line; no value if the dialog is cancelled. In a terminal, a line that is refused can be typed
/// again.
std::optional<std::u16string> nextText(const std::string& prompt)
{
    for (;;)
    {
        if (isTerminal())
        {
            std::cout << prompt << std::flush;
        }
        std::string line;
        const bool isRead = static_cast<bool>(std::getline(std::cin, line));
        if (!isRead || (isTerminal() && (std::cin.eof() || line.ends_with(ESCAPE))))
        {
            std::cout << (isTerminal() && std::cin.eof() ? "\n" : "") << std::flush; // Ctrl-D does not end the line
            return std::nullopt;
        }
        if (line.ends_with('\r'))
        {
            line.pop_back();
        }
        std::u16string text = utf8ToUtf16(line);
        const std::string reason = refusal(line, text);
        if (reason.empty())
        {
            return text;
        }
        if (!isTerminal())
        {
            std::cerr << reason << std::endl;
            return std::nullopt;
        }
        std::cout << reason << '\n';
    }
}

/// Each line stands for text that the user types into the edit control, and its end for the Return key.
std::intptr_t converse(DialogBox& dialog, const std::string& prompt)
{
    dialog.procedure(&dialog, MESSAGE_INIT_DIALOG, 0, 0);
    while (!dialog.result)
    {
        std::optional<std::u16string> text = nextText(prompt);
        if (!text)
        {
            sendCommand(dialog, 0, dialog.cancel);
            break;
        }
        dialog.editText = std::move(*text);
        sendCommand(dialog, NOTIFICATION_EDIT_CHANGED, dialog.edit);
        sendCommand(dialog, 0, dialog.ok.isEnabled ? dialog.ok : dialog.cancel);
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
    if (isTerminal())
    {
        std::cout << resources->dialog.title << '\n';
    }
    DialogBox dialog{
        .procedure = procedure, .edit = {resources->dialog.editControl, true}, .editText = {}, .result = {}};
    return converse(dialog, std::string(HOW_TO_CANCEL).append("\n").append(resources->dialog.prompt).append(": "));
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
        return static_cast<std::intptr_t>(dialog->editText.size());
    }
    if (message == MESSAGE_EDIT_GET_LINE)
    {
        // The first unit of the buffer holds its size in units. No zero is added.
        auto* const buffer = reinterpret_cast<char16_t*>(lParam);
        return static_cast<std::intptr_t>(dialog->editText.copy(buffer, *buffer));
    }
    return 0;
}

void reportFailure(const std::string& what, ErrorNumber error, const std::string& more)
{
    std::cerr << what << ": " << errorText(error) << '\n' << more << (more.empty() ? "" : "\n") << std::flush;
}

} // namespace

} // namespace platform::posix

constinit platform::DialogCalls platform::dialogCalls = {
    .runDialog = {"runDialog", posix::runDialog},
    .endDialog = {"endDialog", posix::endDialog},
    .dialogItem = {"dialogItem", posix::dialogItem},
    .enableControl = {"enableControl", posix::enableControl},
    .sendItemMessage = {"sendItemMessage", posix::sendItemMessage},
    .reportFailure = {"reportFailure", posix::reportFailure},
};
