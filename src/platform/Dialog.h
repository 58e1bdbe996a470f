#pragma once

// A modal dialog: a real window on Windows, a dialogue in the terminal (or over standard input) on POSIX. Both run
// the same dialog procedure with the same messages.
//
//     runDialog(module, IDD_CHECKPOINT, procedure); // returns when the procedure has called endDialog
//
// In a terminal each line becomes the text of the edit control, and its end presses OK if that is enabled, else Cancel.
// A line that ends with Esc cancels the dialog, and so does the end of the input. A line with control characters, or
// one that is so long that the terminal has cut it, is refused with the reason and asked for again. Where standard
// input is no terminal, nothing is asked: the first line is the text. If it has control characters, the reason goes to
// standard error and the dialog is cancelled.
//
// Only the thread that runs the dialog may call these functions, except reportFailure, which any thread may call. The
// texts of the dialog are UTF-16.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace platform
{

/// The loaded program whose resources hold the dialog, as the entry point receives it. On POSIX it points to a
/// ModuleResources.
using ModuleHandle = void*;

struct DialogBox;
struct DialogControl;
using DialogHandle = DialogBox*;
using ControlHandle = DialogControl*;

/// Receives each message of the dialog. Returns nonzero if it has handled the message.
using DialogProcedure = std::intptr_t (*)(DialogHandle dialog, std::uint32_t message, std::uintptr_t wParam,
                                          std::intptr_t lParam);

// Messages, notifications and control ids, numbered as in Windows.
inline constexpr std::uint32_t MESSAGE_EDIT_LINE_LENGTH = 0x00C1;  ///< EM_LINELENGTH
inline constexpr std::uint32_t MESSAGE_EDIT_GET_LINE = 0x00C4;     ///< EM_GETLINE
inline constexpr std::uint32_t MESSAGE_INIT_DIALOG = 0x0110;       ///< WM_INITDIALOG
inline constexpr std::uint32_t MESSAGE_COMMAND = 0x0111;           ///< WM_COMMAND
inline constexpr std::uint16_t NOTIFICATION_EDIT_CHANGED = 0x0300; ///< EN_CHANGE
inline constexpr int CONTROL_OK = 1;                               ///< IDOK
inline constexpr int CONTROL_CANCEL = 2;                           ///< IDCANCEL

/// A dialog as the terminal shows it: one edit control, OK and Cancel. OK starts disabled.
struct DialogResource
{
    int id;
    std::string_view title;
    std::string_view prompt;
    int editControl;
};

/// What a program on POSIX has in place of compiled resources.
struct ModuleResources
{
    DialogResource dialog;
};

/// The table of this header's calls, which tests replace.
struct DialogCalls
{
    Call<std::intptr_t(ModuleHandle module, int dialogId, DialogProcedure procedure)> runDialog;
    Call<bool(DialogHandle dialog, std::intptr_t result)> endDialog;
    Call<ControlHandle(DialogHandle dialog, int controlId)> dialogItem;
    Call<bool(ControlHandle control, bool enable)> enableControl;
    Call<std::intptr_t(DialogHandle dialog, int controlId, std::uint32_t message, std::uintptr_t wParam,
                       std::intptr_t lParam)>
        sendItemMessage;
    Call<void(const std::string& what, ErrorNumber error, const std::string& more)> reportFailure;
};

extern DialogCalls dialogCalls;

/// DialogBoxParamW without an owner window and with init parameter 0. Returns the result that endDialog was given, or
/// -1 if the dialog cannot be shown. Only one dialog may run at a time.
inline std::intptr_t runDialog(ModuleHandle module, int dialogId, DialogProcedure procedure)
{
    return dialogCalls.runDialog(module, dialogId, procedure);
}

/// EndDialog. The dialog closes once its procedure has returned.
inline bool endDialog(DialogHandle dialog, std::intptr_t result) { return dialogCalls.endDialog(dialog, result); }

/// GetDlgItem; null if there is no such control.
[[nodiscard]] inline ControlHandle dialogItem(DialogHandle dialog, int controlId)
{
    return dialogCalls.dialogItem(dialog, controlId);
}

/// EnableWindow. Returns whether the control was disabled before the call.
inline bool enableControl(ControlHandle control, bool enable) { return dialogCalls.enableControl(control, enable); }

/// SendDlgItemMessageW. lParam holds a pointer where the message needs a buffer for UTF-16 text. On POSIX only the edit
/// control answers, and only the two messages MESSAGE_EDIT_...; other messages return 0.
inline std::intptr_t sendItemMessage(DialogHandle dialog, int controlId, std::uint32_t message, std::uintptr_t wParam,
                                     std::intptr_t lParam)
{
    return dialogCalls.sendItemMessage(dialog, controlId, message, wParam, lParam);
}

/// Tells the user of the dialog what has failed. On POSIX this is a line of UTF-8 on standard error, with the system's
/// description of the error, and a second line with `more` if that is not empty. On Windows it does nothing: the window
/// closes without a message. Any thread may call.
inline void reportFailure(const std::string& what, ErrorNumber error, const std::string& more)
{
    dialogCalls.reportFailure(what, error, more);
}

} // namespace platform
