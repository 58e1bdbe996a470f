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

constexpr char ESCAPE = '\x1B';
constexpr std::string_view HOW_TO_CANCEL = "To cancel: Return alone, Esc and Return, or Ctrl-D.";

bool isTerminal() { return isatty(STDIN_FILENO) == 1; }

/// C0, which has the tab and Esc, DEL and C1.
bool isControlCharacter(char16_t unit) { return unit < 0x20 || (unit >= 0x7F && unit < 0xA0); }

/// Why a line cannot be what the user wants to have in the edit control; empty if it can.
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

/// The text of the next line, without a value if the user cancels. What is refused can be typed again in a terminal.
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
            std::cout << (isTerminal() && std::cin.eof() ? "\n" : "") << std::flush; // Ctrl-D leaves the line open
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

/// One line is what the user types into the edit control, its end is the Return key.
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
        dialog.text = std::move(*text);
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
    DialogBox dialog{.procedure = procedure, .edit = {resources->dialog.editControl, true}, .text = {}, .result = {}};
    return converse(dialog, std::string(HOW_TO_CANCEL) + "\n" + std::string(resources->dialog.prompt) + ": ");
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
