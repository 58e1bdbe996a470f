#include "platform/Dialog.h"

#include "platform/windows/System.h"

namespace platform::windows
{

namespace
{

static_assert(MESSAGE_EDIT_LINE_LENGTH == EM_LINELENGTH && MESSAGE_EDIT_GET_LINE == EM_GETLINE);
static_assert(MESSAGE_INIT_DIALOG == WM_INITDIALOG && MESSAGE_COMMAND == WM_COMMAND);
static_assert(NOTIFICATION_EDIT_CHANGED == EN_CHANGE && CONTROL_OK == IDOK && CONTROL_CANCEL == IDCANCEL);

/// The procedure of the one dialog that is shown.
DialogProcedure currentProcedure = nullptr;

HWND toWindow(DialogHandle dialog) { return reinterpret_cast<HWND>(dialog); }

INT_PTR CALLBACK forward(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam)
{
    return currentProcedure(reinterpret_cast<DialogHandle>(dialog), message, wParam, lParam);
}

std::intptr_t runDialog(ModuleHandle module, int dialogId, DialogProcedure procedure)
{
    currentProcedure = procedure;
    return DialogBoxParamW(static_cast<HINSTANCE>(module), MAKEINTRESOURCEW(dialogId), nullptr, forward, 0);
}

bool endDialog(DialogHandle dialog, std::intptr_t result) { return EndDialog(toWindow(dialog), result) != FALSE; }

ControlHandle dialogItem(DialogHandle dialog, int controlId)
{
    return reinterpret_cast<ControlHandle>(GetDlgItem(toWindow(dialog), controlId));
}

bool enableControl(ControlHandle control, bool enable)
{
    return EnableWindow(reinterpret_cast<HWND>(control), enable ? TRUE : FALSE) != FALSE;
}

std::intptr_t sendItemMessage(DialogHandle dialog, int controlId, std::uint32_t message, std::uintptr_t wParam,
                              std::intptr_t lParam)
{
    return SendDlgItemMessageW(toWindow(dialog), controlId, message, wParam, lParam);
}

void reportFailure(const std::string& /*what*/, ErrorNumber /*error*/, const std::string& /*more*/) {}

} // namespace

} // namespace platform::windows

constinit platform::DialogCalls platform::dialogCalls = {
    .runDialog = {"runDialog", windows::runDialog},
    .endDialog = {"endDialog", windows::endDialog},
    .dialogItem = {"dialogItem", windows::dialogItem},
    .enableControl = {"enableControl", windows::enableControl},
    .sendItemMessage = {"sendItemMessage", windows::sendItemMessage},
    .reportFailure = {"reportFailure", windows::reportFailure},
};
